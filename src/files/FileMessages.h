#pragma once
// Every Japanese text the files subsystem shows the user, in one place, so the
// wording can be reviewed and kept consistent without hunting through the
// code. The size message is assembled from parts; see `tooLargeMessage`.
#include <string_view>

namespace velko::file_messages {

// Shared by open, save and rename when the project's folder is gone.
inline constexpr std::string_view kMissingRoot = "プロジェクトのルートが見つかりませんでした";

// Opening a file.
inline constexpr std::string_view kInvalidPath = "無効なパスです";
inline constexpr std::string_view kNotFound = "ファイルが見つかりませんでした";
inline constexpr std::string_view kDirectory = "ディレクトリは表示できません";
inline constexpr std::string_view kUnreadable = "ファイルをテキストとして読み込めませんでした";
inline constexpr std::string_view kTooLargeLead = "このファイルは約 ";
inline constexpr std::string_view kTooLargeMiddle = "MB あり、上限の ";
inline constexpr std::string_view kTooLargeTail =
    "MB を超えているため開けません。サイズを削減するか、外部エディタをご利用ください。";

// Saving a file; the failure is followed by the system's description.
inline constexpr std::string_view kInvalidSavePath = "保存パスが不正です";
inline constexpr std::string_view kSaveFailed = "保存に失敗しました: ";

// Renaming; the failure is followed by the system's description.
inline constexpr std::string_view kRenameInvalidPath = "リネーム対象のパスが不正です";
inline constexpr std::string_view kRenameInvalidDestination = "移動先のパスが不正です";
inline constexpr std::string_view kRenameEmptyName = "名前を入力してください";
inline constexpr std::string_view kRenameReservedName = "この名前は使用できません";
inline constexpr std::string_view kRenameForbiddenCharacter = "名前に使用できない文字が含まれています";
inline constexpr std::string_view kRenameNotFound = "対象が見つかりません";
inline constexpr std::string_view kRenameConflict = "同名の項目が既に存在します";
inline constexpr std::string_view kRenameFailed = "リネームに失敗しました: ";
inline constexpr std::string_view kRenameTemporaryName = "一時ファイル名の生成に失敗しました";

}  // namespace velko::file_messages
