#pragma once
// Texts the shell shows the user, in one place. Machine tokens ("no-projects")
// stay beside the code that sends them.

namespace velko::shell_messages {

// "project/resume/error"
inline constexpr const char* kResumeConfigUnavailable = "設定を読み込めませんでした";
inline constexpr const char* kResumeNoProjects = "復元できるプロジェクトが見つかりません";

// "github/oauth/error" while no OAuth client is configured.
inline constexpr const char* kOAuthNotConfigured = "GitHub サインインが設定されていません (OAuth クライアント ID がありません)";

}  // namespace velko::shell_messages
