// Which postings stand together, seen on the thread pages.
#include <sstream>

#include "tests/platform/archive/archive_fixture.h"

namespace dl
{
namespace
{

using testing::Mail;

class Threads : public testing::ArchiveFixture
{
 protected:
    // Posts "id | minute | subject | references", the author named by the id's first letter. The
    // references are the ids of References, "<" and that of In-Reply-To, or a header line.
    void PostStep(unsigned long id, const std::string& step)
    {
        std::vector<std::string> fields;
        for (std::size_t at = 0, end = 0; end != std::string::npos; at = end + 3) {
            end = step.find(" | ", at);
            fields.push_back(step.substr(at, end - at));
        }
        fields.resize(4);
        std::string reply;
        std::string references;
        std::istringstream ids(fields[3]);
        for (std::string one; ids >> one;)
            one[0] == '<' ? reply = "In-Reply-To: " + one + ">\r\n"
                          : references += " <" + one + ">";
        std::string more = reply + (references.empty() ? "" : "References:" + references + "\r\n");
        if (fields[3].find(':') != std::string::npos)
            more = fields[3] + "\r\n";
        const auto letter = static_cast<char>(step[0] - 'a' + 'A');
        Post(id, {.subject = fields[2],
                  .from = std::string(1, letter) + " <x@example.com>",
                  .id = fields[0],
                  .more = more,
                  .minute = std::stoi(fields[1])});
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

// Postings in the order in which they come lie in tests/data/threads.txt, with the threads' shapes.
TEST_F(Threads, References)
{
    for (const testing::DataBlock& row : testing::ReadBlocks("threads.txt")) {
        for (const bool at_once : {true, false}) {
            SCOPED_TRACE(row.name);
            std::filesystem::remove_all(ArchivePath());
            std::filesystem::create_directories(ArchivePath());
            unsigned long id = 0;
            std::istringstream steps(row.in);
            for (std::string step; std::getline(steps, step);) {
                PostStep(++id, step);
                if (!at_once)
                    Generate();
            }
            Generate();
            EXPECT_EQ(Shape() + "\n", row.want);
            if (at_once)
                CheckPages();
            if (HasFailure())
                return;
        }
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
