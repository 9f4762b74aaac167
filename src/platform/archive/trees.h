// The folder with an archive's pages, and the one beside it in which a rebuild makes all of them.
//
// While a rebuild goes on, the index keeps its token, and so does the new folder. The finished one
// is exchanged for the present one in one step; the token in it tells a later run, when this one
// was interrupted right there, that the exchange has happened.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace dl::archive
{

class Database;

// The folder below the archive folder that pages are written to.
[[nodiscard]] std::string PagesFolder(Database& index);
// Makes an empty new folder; its token. Nothing is changed by that yet. Empty when there are no
// pages that it could replace: they are made in their place then.
[[nodiscard]] std::string BeginNewTree(const std::string& archive_path);
// Exchanges the finished new folder for the present one, when a rebuild is going on.
void ExchangeTrees(const std::string& archive_path, Database& index);
// Ends a rebuild that was interrupted after the exchange.
void FinishExchange(const std::string& archive_path, Database& index);

// Removes a file or folder below the archive folder, in the new pages too.
void RemoveEverywhere(const std::string& archive_path, const std::string& path);
void SyncTree(const std::string& archive_path);
// Renames a damaged index, so that a new one can be made.
void SetIndexAside(const std::string& archive_path);

[[nodiscard]] std::string PostingFileName(std::int64_t id);
// The number of a posting's file name, "%08X.msg"; none for any other name.
[[nodiscard]] std::optional<std::int64_t> IdOfFile(const std::string& name);

}  // namespace dl::archive
