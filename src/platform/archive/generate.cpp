#include "platform/archive/generate.h"

#include <algorithm>
#include <filesystem>
#include <vector>

#include "platform/archive/announce_private.h"
#include "platform/archive/assets.h"
#include "platform/archive/failure_private.h"
#include "platform/archive/filing_private.h"
#include "platform/archive/incoming_private.h"
#include "platform/archive/pages_private.h"
#include "platform/archive/trees.h"
#include "platform/mime/read_posting.h"

namespace dl::archive
{
namespace
{

constexpr std::int64_t kWriteAtOnce = 1000;  // pages per sync

// What is missing on a posting's page; empty: nothing.
struct PostingTrouble {
    std::int64_t id = 0;
    std::string cause;
};

class Generator
{
 public:
    Generator(const std::string& archive_path, const std::string& list)
        : path_(archive_path), list_(list), index_(OpenIndex(archive_path))
    {
    }

    [[nodiscard]] Database& Index() { return *index_; }

    void Run()
    {
        FinishExchange(path_, *index_);
        RemoveGone();
        RetryFailed(*index_, Retry::kOfOtherMakers);
        ReadIncoming(*index_, path_, list_);
        RemoveGone();
        const std::string top = path_ + "/" + PagesFolder(*index_);
        const Site site = MakeSite();
        PrepareFolder(site, top);
        while (WriteSome(site, top)) {
        }
        ExchangeTrees(path_, *index_);
    }

    void RemoveGone()
    {
        std::vector<std::string> paths;
        do {
            paths.clear();
            {
                Rows rows = index_->Query("SELECT path FROM gone LIMIT 500");
                while (rows.Next())
                    paths.push_back(rows.Text(0));
            }
            for (const std::string& path : paths)
                RemoveEverywhere(path_, path);
            if (!paths.empty())
                SyncTree(path_);
            Transaction transaction(*index_);
            for (const std::string& path : paths)
                index_->Run("DELETE FROM gone WHERE path=?1", path);
            transaction.Commit();
        } while (!paths.empty());
    }

 private:
    Site MakeSite()
    {
        std::string title = Meta(*index_, "title");
        if (title.empty())
            title = list_.substr(0, list_.rfind('@'));
        return {*index_, path_, list_, title, Meta(*index_, "description"), Meta(*index_, "url")};
    }

    // Writes the files that all pages share. When they, or what all pages say, have changed, all
    // pages are due.
    void PrepareFolder(const Site& site, const std::string& top)
    {
        std::string all = std::to_string(kMaker);
        for (const std::string_view part :
             {kStyleSheet, kIcon, kSearchScript, std::string_view(site.list),
              std::string_view(site.title), std::string_view(site.description),
              std::string_view(site.url)})
            all.append("\n").append(part);
        const std::string layout = Sha256Hex(all);
        if (Meta(*index_, "layout") == layout && FileSize(top + "/style.css") >= 0 &&
            FileSize(top + "/index.html") >= 0)
            return;
        PageBatch batch(top);
        batch.Add("style.css", kStyleSheet);
        batch.Add("icon.svg", kIcon);
        batch.Add("search.js", kSearchScript);
        batch.Commit();
        Transaction transaction(*index_);
        MarkAllPages(*index_);
        SetMeta(*index_, "layout", layout);
        transaction.Commit();
    }

    // Writes the next pages that are due and clears their marks. False when there is none.
    bool WriteSome(const Site& site, const std::string& top)
    {
        std::vector<PageId> pages;
        {
            Rows rows = index_->Query(
                "SELECT kind, value, page FROM dirty ORDER BY kind, value, page LIMIT ?1",
                kWriteAtOnce);
            while (rows.Next())
                pages.push_back({static_cast<PageKind>(rows.Int(0)), rows.Int(1), rows.Int(2)});
        }
        if (pages.empty())
            return false;
        PageBatch batch(top);
        std::vector<PostingTrouble> troubles;
        for (const PageId& page : pages)
            if (const auto bytes = Make(site, page, &batch, &troubles))
                batch.Add(PagePath(*index_, page), *bytes);
        batch.Commit();
        Transaction transaction(*index_);
        for (const PageId& page : pages)
            index_->Run("DELETE FROM dirty WHERE kind=?1 AND value=?2 AND page=?3",
                        static_cast<std::int64_t>(page.kind), page.value, page.page);
        for (const PostingTrouble& trouble : troubles)
            NoteShown(*index_, list_, trouble.id, trouble.cause);
        transaction.Commit();
        return true;
    }

    static std::optional<std::string> Make(const Site& site, const PageId& page, PageBatch* batch,
                                           std::vector<PostingTrouble>* troubles)
    {
        switch (page.kind) {
            case PageKind::kPosting:
                return PostingPage(site, page.value, batch,
                                   &troubles->emplace_back(PostingTrouble{page.value, ""}).cause);
            case PageKind::kThread:
                return ThreadPage(site, page);
            case PageKind::kMonth:
                return MonthPage(site, page);
            case PageKind::kThreadMonth:
                return ThreadMonthPage(site, page);
            case PageKind::kAuthor:
                return AuthorPage(site, page);
            case PageKind::kAuthors:
                return AuthorsPage(site, page);
            case PageKind::kAuthorsIndex:
                return AuthorsIndexPage(site);
            case PageKind::kSearchShard:
                return SearchShard(site, page.page);
            case PageKind::kSearchPage:
                return SearchPage(site);
            case PageKind::kThreadsFront:
                return ThreadsFrontPage(site);
            case PageKind::kFeed:
                return FeedPage(site);
            case PageKind::kFront:
                return FrontPage(site);
        }
        return std::nullopt;
    }

    std::string path_;
    std::string list_;
    std::unique_ptr<Database> index_;
};

// The ids of all posting files.
std::vector<std::int64_t> PostingFiles(const std::string& archive_path)
{
    std::vector<std::int64_t> ids;
    std::error_code error;
    for (std::filesystem::directory_iterator at(archive_path, error), end; !error && at != end;
         at.increment(error)) {
        if (const auto id = IdOfFile(at->path().filename().string()))
            ids.push_back(*id);
    }
    if (error)
        Fail("read the folder " + archive_path, error.value());
    std::sort(ids.begin(), ids.end());
    return ids;
}

// Addresses and descriptions stay, and what postings were made from; everything else is read again.
// The files are listed inside the transaction: one that is filed before it is among them, one that
// is filed behind it records itself, or was announced.
void ClearIndex(Database& index, const std::string& archive_path, const std::string& token)
{
    Transaction transaction(index);
    const std::vector<std::int64_t> ids = PostingFiles(archive_path);
    index.Script(
        "DELETE FROM posting; DELETE FROM thread; DELETE FROM author; DELETE FROM wanted;"
        "DELETE FROM leaf; DELETE FROM shard; DELETE FROM dirty;"
        "DELETE FROM incoming WHERE announced=0;");
    for (const std::int64_t id : ids)
        index.Run("INSERT OR REPLACE INTO incoming (id, stamp) VALUES (?1, 0)", id);
    index.Run("DELETE FROM source WHERE id NOT IN (SELECT id FROM incoming)");
    SetMeta(index, "layout", "");
    SetMeta(index, "rebuild", token);
    transaction.Commit();
}

}  // namespace

void Generate(const std::string& archive_path, const std::string& list)
{
    const WriterLock lock(archive_path);
    Generator(archive_path, list).Run();
}

bool Remove(const std::string& archive_path, const std::string& list, std::int64_t id)
{
    const WriterLock lock(archive_path);
    Generator generator(archive_path, list);
    Database& index = generator.Index();
    index.Run("PRAGMA secure_delete=ON");
    bool found = FileSize(archive_path + "/" + PostingFileName(id)) >= 0;
    Transaction transaction(index);
    found = UnfilePosting(index, id) || found;
    // Also of a posting that was left out because its file has gone.
    found = index.Int("DELETE FROM incoming WHERE id=?1 RETURNING id", id) || found;
    ForgetSource(index, id);
    if (found)
        MarkGone(index, PostingFileName(id));
    transaction.Commit();
    generator.Run();
    // What the log of the index still holds of the posting goes too.
    index.Run("PRAGMA wal_checkpoint(TRUNCATE)");
    return found;
}

void Rebuild(const std::string& archive_path, const std::string& list)
{
    const WriterLock lock(archive_path);
    const std::string token = BeginNewTree(archive_path);
    try {
        Generator generator(archive_path, list);
        generator.RemoveGone();
        ClearIndex(generator.Index(), archive_path, token);
        generator.Run();
    } catch (const CDlArchiveException& problem) {
        if (problem.fault != ArchiveFault::kDamaged)
            throw;
        SetIndexAside(archive_path);
        Generator generator(archive_path, list);
        ClearIndex(generator.Index(), archive_path, token);
        generator.Run();
    }
}

}  // namespace dl::archive
