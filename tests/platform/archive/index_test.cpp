// Which postings stand together, seen on the thread pages.
#include "tests/platform/archive/archive_fixture.h"

namespace dl
{
namespace
{

using testing::Mail;

constexpr int kDay = 24 * 60;

// One posting that comes; its author is named by the first letter of the Message-ID.
struct Step {
    const char* subject;
    const char* id;
    const char* more;
    int minute;
};

class Threads : public testing::ArchiveFixture
{
 protected:
    void PostStep(unsigned long id, const Step& step)
    {
        const auto letter = static_cast<char>(step.id[0] - 'a' + 'A');
        Post(id, {.subject = step.subject,
                  .from = std::string(1, letter) + " <x@example.com>",
                  .id = step.id,
                  .more = step.more,
                  .minute = step.minute});
    }

    // The thread pages as "A(B(C)D) E": authors, replies in brackets, threads in order of their
    // names' first letters.
    std::string Shape()
    {
        std::vector<std::string> shapes;
        for (const auto& [path, inode] : Inodes())
            if (path.starts_with("t/"))
                shapes.push_back(ShapeOf(Page(path)));
        std::sort(shapes.begin(), shapes.end());
        std::string all;
        for (const std::string& shape : shapes)
            all += (all.empty() ? "" : " ") + shape;
        return all;
    }

 private:
    static std::string ShapeOf(const std::string& page)
    {
        std::string shape;
        std::size_t at = page.find("<ol class=\"tree\">");
        const std::size_t end = page.find("</main>");
        for (++at; at < end; ++at) {
            if (page.compare(at, 4, "<ol>") == 0)
                shape += '(';
            else if (page.compare(at, 5, "</ol>") == 0)
                shape += ')';
            else if (page.compare(at, 19, "class=\"title\"><bdi>") == 0)
                shape += page[at + 19];
        }
        if (!shape.empty())
            shape.pop_back();  // the outer list's end
        return shape;
    }
};

struct Row {
    const char* name;
    std::vector<Step> postings;  // in the order in which they come
    const char* want;
};

const Row kRows[] = {
    {"no relation", {{"A", "a", "", 1}, {"B", "b", "", 2}}, "A B"},
    {"In-Reply-To", {{"A", "a", "", 1}, {"B", "b", "In-Reply-To: <a>\r\n", 2}}, "A(B)"},
    {"the last of References is the parent",
     {{"A", "a", "", 1},
      {"B", "b", "References: <a>\r\n", 2},
      {"C", "c", "References: <a> <b>\r\n", 3},
      {"D", "d", "References: <a>\r\n", 4}},
     "A(B(C)D)"},
    {"References before In-Reply-To",
     {{"A", "a", "", 1},
      {"B", "b", "", 2},
      {"C", "c", "In-Reply-To: <b>\r\nReferences: <a>\r\n", 3}},
     "A(C) B"},
    {"a missing parent: the grandparent",
     {{"A", "a", "", 1}, {"C", "c", "References: <a> <lost>\r\n", 3}},
     "A(C)"},
    {"the parent comes late and takes its place",
     {{"A", "a", "", 1},
      {"C", "c", "References: <a> <b>\r\n", 3},
      {"B", "b", "References: <a>\r\n", 2}},
     "A(B(C))"},
    {"everything comes in reverse",
     {{"D", "d", "References: <a> <b> <c>\r\n", 4},
      {"C", "c", "References: <a> <b>\r\n", 3},
      {"B", "b", "References: <a>\r\n", 2},
      {"A", "a", "", 1}},
     "A(B(C(D)))"},
    {"replies to a posting that never came stand together",
     {{"A", "a", "In-Reply-To: <lost>\r\n", 1}, {"B", "b", "In-Reply-To: <lost>\r\n", 2}},
     "AB"},
    {"two threads become one",
     {{"A", "a", "", 1},
      {"X", "x", "In-Reply-To: <b>\r\n", 5},
      {"Y", "y", "In-Reply-To: <x>\r\n", 6},
      {"B", "b", "In-Reply-To: <a>\r\n", 2}},
     "A(B(X(Y)))"},
    {"a ring",
     {{"A", "a", "In-Reply-To: <b>\r\n", 1}, {"B", "b", "In-Reply-To: <a>\r\n", 2}},
     "A(B)"},
    {"a ring of three",
     {{"A", "a", "In-Reply-To: <c>\r\n", 1},
      {"B", "b", "In-Reply-To: <a>\r\n", 2},
      {"C", "c", "In-Reply-To: <b>\r\n", 3}},
     "A(B(C))"},
    {"itself", {{"A", "a", "In-Reply-To: <a>\r\nReferences: <a>\r\n", 1}}, "A"},
    {"by subject", {{"Apples", "a", "", 1}, {"Re: apples", "b", "", 2}}, "AB"},
    {"by subject through list tag and other languages",
     {{"Apples", "a", "", 1}, {"[garden] AW: Re[2]: Apples", "b", "", 2}},
     "AB"},
    {"a subject again is no reply", {{"Apples", "a", "", 1}, {"Apples", "b", "", 2}}, "A B"},
    {"an old subject is another thread",
     {{"Apples", "a", "", 1}, {"Re: Bananas", "b", "", 20 * kDay}, {"Re: Apples", "c", "", 2}},
     "AC B"},
    {"references win over the subject",
     {{"A", "a", "", 1}, {"B", "b", "", 2}, {"Re: A", "c", "In-Reply-To: <b>\r\n", 3}},
     "A B(C)"},
    {"an empty subject joins nothing", {{"Re:", "a", "", 1}, {"Re:", "b", "", 2}}, "A B"},
    {"comments and phrases in In-Reply-To",
     {{"A", "a", "", 1}, {"B", "b", "In-Reply-To: Your message of \"x\" <a> (was: B)\r\n", 2}},
     "A(B)"},
};

TEST_F(Threads, References)
{
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        std::filesystem::remove_all(ArchivePath());
        std::filesystem::create_directories(ArchivePath());
        unsigned long id = 0;
        for (const Step& step : row.postings) {
            PostStep(++id, step);
        }
        Generate();
        EXPECT_EQ(Shape(), row.want);
        CheckPages();
        // One at a time gives the same.
        std::filesystem::remove_all(ArchivePath());
        std::filesystem::create_directories(ArchivePath());
        id = 0;
        for (const Step& step : row.postings) {
            PostStep(++id, step);
            Generate();
        }
        EXPECT_EQ(Shape(), row.want);
        if (HasFailure())
            return;
    }
}

// Each line of the conversation deep below the other, on a page that stays readable.
TEST_F(Threads, ADeepThreadIsNotIndentedForEver)
{
    for (unsigned long id = 1; id <= 60; ++id)
        Post(id,
             {.more =
                  id == 1 ? "" : "In-Reply-To: <m" + std::to_string(id - 1) + "@example.com>\r\n"});
    Generate();
    CheckPages();
    for (const auto& [path, inode] : Inodes()) {
        if (!path.starts_with("t/"))
            continue;
        int depth = 0;
        int deepest = 0;
        const std::string page = Page(path);
        for (std::size_t at = page.find("ol>"); at != std::string::npos;
             at = page.find("ol>", at + 1)) {
            depth += page[at - 1] == '/' ? -1 : 1;
            deepest = std::max(deepest, depth);
        }
        EXPECT_LE(deepest, 12);
    }
}

}  // namespace
}  // namespace dl
