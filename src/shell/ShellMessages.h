#pragma once
// Texts the shell shows the user, in one place. Machine tokens ("no-projects")
// stay beside the code that sends them.

namespace velko::shell_messages {

// "project/resume/error"
inline constexpr const char* kResumeConfigUnavailable = "設定を読み込めませんでした";
inline constexpr const char* kResumeNoProjects = "復元できるプロジェクトが見つかりません";

// "github/oauth/error" while no OAuth client is configured. English until the
// account service brings its own texts.
inline constexpr const char* kOAuthNotConfigured = "GitHub sign-in is not configured (no OAuth client id).";

}  // namespace velko::shell_messages
