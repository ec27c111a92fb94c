#pragma once
// Every text of the git engine that the user reads, in one place. The words
// are fixed: the page and the user's habits rely on them, so a change here is
// a change of what the program says. Log lines stay English and live with
// the code that writes them.

#include <string>
#include <string_view>

namespace velko::gitmsg {

inline constexpr std::string_view kCommitMessageRequired = "コミットメッセージを入力してください";
inline constexpr std::string_view kCommitted = "コミットしました";
inline constexpr std::string_view kPushDone = "Push が完了しました";
inline constexpr std::string_view kPullDone = "Pull が完了しました";
inline constexpr std::string_view kFetchDone = "Fetch が完了しました";
inline constexpr std::string_view kMissingRemote = "リモートリポジトリがないプロジェクトです";
inline constexpr std::string_view kAuthenticationRejected =
    "Git 認証に失敗しました。再度 GitHub にサインインしてください。";

// The descriptions of the typed errors themselves.
inline constexpr std::string_view kLaunchFailedPrefix = "Git コマンド起動に失敗: ";
inline constexpr std::string_view kUnknownCommandError = "Git コマンドで不明なエラー";
inline constexpr std::string_view kAuthenticationFailed = "GitHub 認証に失敗しました";
inline constexpr std::string_view kSignInRequired = "GitHub にサインインしてください";

// History, graph and branch map. The page tells the failures of its views from
// those of an action by these beginnings.
inline constexpr std::string_view kHistoryFailedPrefix = "コミット履歴の取得に失敗しました: ";
inline constexpr std::string_view kGraphFailedPrefix = "コミットグラフの取得に失敗しました: ";
inline constexpr std::string_view kProjectNotFound = "プロジェクトを確認できません";

// What went wrong asking GitHub's GraphQL API.
inline constexpr std::string_view kGraphQLInvalidURL = "GraphQL エンドポイントの URL が不正です";
inline constexpr std::string_view kGraphQLInvalidResponse = "GraphQL 応答が不正です";
inline constexpr std::string_view kGraphQLUnauthorized = "GraphQL リクエストが認証されませんでした";
inline constexpr std::string_view kGraphQLEmptyData = "GraphQL 応答にデータが含まれていません";
inline constexpr std::string_view kGraphQLUndecodable = "GraphQL 応答を読み取れませんでした";
inline constexpr std::string_view kGitHubTimedOut = "GitHub から時間内に応答がありませんでした";
inline constexpr std::string_view kGitHubCannotConnect = "GitHub に接続できませんでした";
inline constexpr std::string_view kGitHubTls = "GitHub と安全に接続できませんでした";
inline constexpr std::string_view kGitHubCancelled = "GitHub への問い合わせを中止しました";
inline constexpr std::string_view kGitHubTransport = "GitHub との通信に失敗しました";

// "<git push> の起動に失敗: <why>"
inline std::string launchFailed(std::string_view command, std::string_view why) {
    return std::string(command) + " の起動に失敗: " + std::string(why);
}
// "<git commit> で不明なエラー"
inline std::string unknownError(std::string_view command) { return std::string(command) + " で不明なエラー"; }
// "<Push> を実行するには GitHub にサインインしてください"
inline std::string signInToRun(std::string_view operation) {
    return std::string(operation) + " を実行するには GitHub にサインインしてください";
}
// The askpass folder in the shared temporary directory is not a private
// folder of ours, so the token is not handed to git through it.
inline std::string unsafeCredentialFolder(std::string_view folder) {
    return "一時フォルダ " + std::string(folder) +
           " が安全でないため、GitHub の認証情報を Git に渡せません（あなただけが使えるフォルダ（権限 700）にしてください）";
}

}  // namespace velko::gitmsg
