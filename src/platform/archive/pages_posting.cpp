// The page of one posting.
#include <cerrno>
#include <new>

#include "platform/archive/facts.h"
#include "platform/archive/failure_private.h"
#include "platform/archive/incoming_private.h"
#include "platform/archive/pages_private.h"
#include "platform/archive/safe_name.h"
#include "platform/archive/trees.h"
#include "platform/log/format.h"
#include "platform/mime/read_posting.h"

namespace dl::archive
{
namespace
{

constexpr const char* kUp = "../../";
constexpr std::int64_t kMaxReplies = 25;
constexpr std::size_t kMaxRecipients = 10;

std::string Fact(const char* name, const std::string& value)
{
    return std::string("<div><dt>") + name + "</dt><dd>" + value + "</dd></div>\n";
}

std::string Mailbox(const PostingMailbox& mailbox)
{
    const std::string name = Shorten(mailbox.name, 120);
    if (name.empty())
        return HeaderHtml(mailbox.address, 120);
    if (mailbox.address.empty())
        return HeaderHtml(name);
    return HeaderHtml(name) + " <span class=\"soft\">" + HeaderHtml(mailbox.address, 120) +
           "</span>";
}

std::string Recipients(const std::vector<PostingMailbox>& mailboxes)
{
    std::string out;
    for (std::size_t i = 0; i < mailboxes.size() && i < kMaxRecipients; ++i)
        out += (i ? ", " : "") + Mailbox(mailboxes[i]);
    if (mailboxes.size() > kMaxRecipients)
        out += " and " + std::to_string(mailboxes.size() - kMaxRecipients) + " more";
    return out;
}

std::string SizeText(std::int64_t bytes)
{
    if (bytes < 1000)
        return Count(bytes, "byte", "bytes");
    const double size = static_cast<double>(bytes);
    return bytes < 1'000'000 ? FormatText("%.0f kB", size / 1000)
                             : FormatText("%.1f MB", size / 1'000'000);
}

std::string Texts(const Posting& posting)
{
    std::string out;
    for (const PostingText& text : posting.texts) {
        out += BodyHtml(text.text);
        if (text.cut)
            out += "<p class=\"note\">The text goes on; all of it is among the attachments.</p>\n";
        if (text.from_html)
            out += "<p class=\"note\">This text was made from an HTML message.</p>\n";
    }
    if (out.empty())
        out = "<p class=\"note\">This posting has no text.</p>\n";
    return out;
}

// One line of the list of attachments. The file is put into `batch` unless it is there.
std::string Attachment(const PostingFile& file, std::size_t number, const std::string& slug,
                       PageBatch* batch, std::string* trouble)
{
    const PostingAttachment& attachment = file.Get().attachments[number];
    const std::string name = SafeFileName(number + 1, attachment.name, attachment.type);
    const std::string path = PostingFolder(slug) + "/" + name;
    const std::string shown = Shorten(attachment.name, 100);
    const std::string label = shown.empty() ? "<bdi>" + name + "</bdi>" : HeaderHtml(shown);
    const std::string type = Escape(Shorten(attachment.type, 60));
    std::int64_t size = FileSize(batch->Top() + "/" + path);
    if (size < 0) {
        if (!batch->TryAdd(
                path, [&](FileWriter* writer) { return file.WriteAttachment(number, writer); })) {
            *trouble += (trouble->empty() ? "" : ", ") + ("attachment " + name) + " cannot be read";
            return "<li>" + label + " <span class=\"soft\">" + type +
                   ", cannot be read</span></li>\n";
        }
        size = FileSize(batch->Top() + "/" + path + ".new");
    }
    return "<li>" + Link(kUp + path, label, " download") + " <span class=\"soft\">" + type + ", " +
           SizeText(std::max<std::int64_t>(size, 0)) + "</span></li>\n";
}

std::string Attachments(const PostingFile& file, const std::string& slug, PageBatch* batch,
                        std::string* trouble)
{
    const Posting& posting = file.Get();
    if (posting.attachments.empty() && posting.more_parts == 0)
        return "";
    std::string out = "<h2>Attachments</h2>\n<ul class=\"files\">\n";
    for (std::size_t i = 0; i < posting.attachments.size(); ++i)
        out += Attachment(file, i, slug, batch, trouble);
    out += "</ul>\n";
    if (posting.more_parts > 0)
        out += "<p class=\"note\">" +
               Count(static_cast<std::int64_t>(posting.more_parts), "further part is",
                     "further parts are") +
               " not shown here.</p>\n";
    return out;
}

std::string Replies(const Site& site, std::int64_t id)
{
    const std::vector<Entry> replies = ReadEntries(site.index.Query(
        "SELECT " DL_ENTRY_COLUMNS " FROM posting WHERE parent=?1 ORDER BY sort LIMIT ?2", id,
        kMaxReplies + 1));
    if (replies.empty())
        return "";
    const bool more = replies.size() > static_cast<std::size_t>(kMaxReplies);
    return "<h2>Replies</h2>\n" +
           EntryList({replies.begin(), replies.end() - (more ? 1 : 0)}, kUp, false) +
           (more ? "<p class=\"note\">The thread has more.</p>\n" : "");
}

std::string Step(const char* name, const std::optional<Entry>& entry, const char* rel)
{
    if (!entry)
        return "";
    return Fact(name, Link(kUp + PostingPath(entry->slug), HeaderHtml(entry->subject, 90),
                           std::string(" rel=\"") + rel + "\"") +
                          " <span class=\"soft\">" + HeaderHtml(entry->name, 60) + "</span>");
}

std::string Steps(const Site& site, const Entry& own, const std::string& sort)
{
    Database& index = site.index;
    std::string out = "<nav class=\"steps\" aria-label=\"Neighbouring postings\">\n<dl>\n";
    out += Step(
        "Earlier in thread",
        ReadEntry(index.Query("SELECT " DL_ENTRY_COLUMNS " FROM posting WHERE thread=?1 AND sort<?2"
                              " ORDER BY sort DESC LIMIT 1",
                              own.thread, sort)),
        "prev");
    out += Step(
        "Later in thread",
        ReadEntry(index.Query("SELECT " DL_ENTRY_COLUMNS " FROM posting WHERE thread=?1 AND sort>?2"
                              " ORDER BY sort LIMIT 1",
                              own.thread, sort)),
        "next");
    out += Step("Earlier by date",
                ReadEntry(index.Query("SELECT " DL_ENTRY_COLUMNS
                                      " FROM posting WHERE sort<?1 ORDER BY sort DESC LIMIT 1",
                                      sort)),
                "prev");
    out += Step(
        "Later by date",
        ReadEntry(index.Query(
            "SELECT " DL_ENTRY_COLUMNS " FROM posting WHERE sort>?1 ORDER BY sort LIMIT 1", sort)),
        "next");
    const std::int64_t month = MonthOf(own.date);
    const Leaf leaf = FindLeaf(index, PageKind::kMonth, month, 1);
    if (leaf.page)
        out += Fact("Month",
                    Link(kUp + PagePath(index, {PageKind::kMonth, month, 1}), MonthText(month)));
    return out + "</dl>\n</nav>\n";
}

std::string Head(const Site& site, const Entry& own, const PostingFile* file)
{
    Database& index = site.index;
    const std::string author = index
                                   .Text(
                                       "SELECT a.slug FROM author a JOIN posting p ON"
                                       " p.author=a.id WHERE p.id=?1",
                                       own.id)
                                   .value_or("");
    std::string from = Link(kUp + AuthorPath(author), HeaderHtml(own.name));
    if (file && !file->Get().from.name.empty() && !file->Get().from.address.empty())
        from += " <span class=\"soft\">" + HeaderHtml(file->Get().from.address, 120) + "</span>";
    std::string out = "<dl class=\"facts\">\n" + Fact("From", from);
    const int zone = file && file->Get().date == own.date ? file->Get().zone_minutes : 0;
    out += Fact("Date", "<time datetime=\"" + IsoText(own.date) + "\">" +
                            MomentText(own.date, zone) + "</time>");
    if (file && !file->Get().to.empty())
        out += Fact("To", Recipients(file->Get().to));
    if (file && !file->Get().cc.empty())
        out += Fact("Cc", Recipients(file->Get().cc));
    const auto parent =
        ReadEntry(index.Query("SELECT " DL_ENTRY_COLUMNS " FROM posting WHERE id=?1", own.parent));
    if (parent)
        out += Fact("In reply to",
                    Link(kUp + PostingPath(parent->slug), HeaderHtml(parent->subject, 120)) +
                        " <span class=\"soft\">" + HeaderHtml(parent->name, 60) + "</span>");
    const std::string thread =
        index.Text("SELECT slug FROM thread WHERE id=?1", own.thread).value_or("");
    out += Fact("Thread", Link(kUp + ThreadPath(thread), "The whole conversation"));
    return out + "</dl>\n";
}

std::string Note(const char* text)
{
    return std::string("<p class=\"note\">") + text + "</p>\n";
}

// What the author wrote and attached, from the posting's file.
std::string Content(const PostingFile* file, const std::string& path, const std::string& slug,
                    PageBatch* batch, std::string* trouble)
{
    if (file)
        return Texts(file->Get()) + Attachments(*file, slug, batch, trouble);
    *trouble = WhyUnreadable(path);
    return Note(FileSize(path) < 0 ? "The message itself is not in the archive any more."
                                   : "The message itself cannot be read.");
}

std::string Article(const Site& site, const Entry& own, PageBatch* batch, std::string* trouble)
{
    const std::string path = site.archive + "/" + PostingFileName(own.id);
    const FaultWatch watch;
    const auto file = PostingFile::Read(path);
    if (!file)
        watch.FailIfMachine("read " + path);
    return Head(site, own, file.get()) + Content(file.get(), path, own.slug, batch, trouble);
}

}  // namespace

std::optional<std::string> PostingPage(const Site& site, std::int64_t id, PageBatch* batch,
                                       std::string* trouble)
{
    const auto own =
        ReadEntry(site.index.Query("SELECT " DL_ENTRY_COLUMNS " FROM posting WHERE id=?1", id));
    if (!own)
        return std::nullopt;
    const std::string sort =
        site.index.Text("SELECT sort FROM posting WHERE id=?1", id).value_or("");
    std::string main = "<article>\n<h1>" + HeaderHtml(own->subject) + "</h1>\n";
    try {
        main += Article(site, *own, batch, trouble);
    } catch (const std::bad_alloc&) {
        Fail("make the page of " + PostingFileName(id), ENOMEM);
    } catch (const std::exception& problem) {
        *trouble = std::string("the program fails at it: ") + problem.what();
        main += Note("This posting cannot be shown.");
    }
    main += "</article>\n" + Replies(site, id) + Steps(site, *own, sort);
    Frame frame;
    frame.list = site.title;
    frame.title = Escape(Shorten(own->subject, 100));
    frame.up = kUp;
    return PageHtml(frame, main);
}

}  // namespace dl::archive
