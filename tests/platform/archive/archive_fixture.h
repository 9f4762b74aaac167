// An archive in the test's own folder, postings into it, and what stands in its pages.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "platform/archive/archive.h"
#include "tests/support/fixture.h"

namespace dl::testing
{

struct Mail {
    std::string subject = "Roses";
    std::string from = "Anna Bell <anna@example.com>";
    std::string id = "";    // Message-ID without brackets; empty: made from the number
    std::string more = "";  // further header lines, "X: y\r\n"
    std::string body = "The roses are out.\r\n";
    int minute = -1;  // after 2004-11-01 00:00 UTC; -1: ten times the posting's number
};

class ArchiveFixture : public Fixture
{
 protected:
    ArchiveFixture();

    // Writes the posting file and records it.
    void Post(unsigned long id, const Mail& mail);
    void PostRaw(unsigned long id, const std::string& message);
    void Generate();
    // Runs check_pages.py over the pages.
    void CheckPages() const;

    [[nodiscard]] std::string ArchivePath() const;
    [[nodiscard]] std::string PagePath(const std::string& name) const;
    [[nodiscard]] std::string Page(const std::string& name) const;
    // The page of the posting whose subject is shown with `title`; empty when there is not exactly
    // one.
    [[nodiscard]] std::string PostingPage(const std::string& title) const;
    [[nodiscard]] std::vector<std::string> PostingPages(const std::string& title) const;
    // Inode of each file below html, by its path there.
    [[nodiscard]] std::map<std::string, unsigned long> Inodes() const;
    // The paths that are new or were written again since `before`.
    [[nodiscard]] std::vector<std::string> Written(
        const std::map<std::string, unsigned long>& before) const;
    // All files below html one after the other, with their names.
    [[nodiscard]] std::string Everything() const;

    const std::string list = "garden@lists.example.org";
};

// The message of a posting, CRLF.
[[nodiscard]] std::string MessageOf(unsigned long id, const Mail& mail);

}  // namespace dl::testing
