// A small mail host: lists in an LDIF file, a queue, data folders, text files.
//
// AddList and Data come before Start, which makes all of it anew in the test's folder and loads the
// list cache; it may be called again. The queue, the directory and the files are the real ones,
// behind wrappers that let chosen calls fail. The clock stands still, so that identifiers, dates
// and boundaries are the same in every run: the first entry of a site is 4190AB00.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/files/files.h"
#include "requests/incoming.h"
#include "tests/support/failing_directory.h"
#include "tests/support/failing_files.h"
#include "tests/support/failing_queue.h"
#include "tests/support/fixture.h"

namespace dl::testing
{

// A message that waits on a channel.
struct Queued {
    unsigned long id = 0;
    std::string sender;
    std::int32_t flags = 0;
    std::string channel;  // in the sender's element
    std::vector<std::string> recipients;
    std::string recipient_channel;  // in the last recipient's element
    std::string text;

    [[nodiscard]] std::string Header(const std::string& name) const;  // of one line; empty: none
    // "<sender> -> <recipient>, <recipient>: <subject>"
    [[nodiscard]] std::string Brief() const;
};

class Site : public Fixture
{
 protected:
    Site();
    ~Site() override;

    // A list <name>@lists.example.org with owner <name>-boss@example.org; `attributes` are LDIF
    // lines. It has no archive unless they say so.
    void AddList(const std::string& name, const std::string& attributes);
    // garden: open, everybody may join by mail, a welcome text. board: closed, may be joined by
    // mail. club: open, its owner decides who joins. anna is a member of all three, bert and dora
    // (digest) of garden, trader a blocked one.
    void AddUsualLists();
    void Start();
    void ForgetLists() { lists_.clear(); }

    // Puts a message on channel "dl"; "\n" in `text` becomes CRLF unless it is CRLF already. A
    // recipient "<address>|<channel>" is meant for another channel.
    unsigned long Submit(const std::string& sender, const std::vector<std::string>& recipients,
                         const std::string& text);
    // One pass of the dispatcher.
    int Run();
    // The next message of channel "dl" as the generators of answers get it. Valid until the next
    // Take, Run or Start.
    Incoming Take();

    // What waits on a channel, in order; it is left there.
    [[nodiscard]] static std::vector<Queued> On(const std::string& channel = "dlout");
    // Its brief forms, one a line.
    [[nodiscard]] static std::string Brief(const std::string& channel = "dlout");
    // Entries that no channel has and nobody will ever see.
    [[nodiscard]] int Unfinished() const;
    // Values of `listmember` in the directory, in its order.
    [[nodiscard]] static std::vector<std::string> Members(const std::string& list);
    // The pending confirmations of a list: "XXXXXXXX.cnf: <content>".
    [[nodiscard]] std::vector<std::string> Pending(const std::string& list = kGarden) const;
    void WritePending(const std::string& id, const std::string& line,
                      const std::string& list = kGarden);
    // Files in the folder of temporary files.
    [[nodiscard]] int TempFiles() const;
    // The log so far, "<level> <text>" a line: up to `level`, the test's folder written as "~", the
    // lines of a loading of all lists as one "(lists loaded)", those about the content scan left
    // out.
    [[nodiscard]] std::string Log(int level = 6) const;

    static constexpr char kGarden[] = "garden@lists.example.org";
    static constexpr char kBoard[] = "board@lists.example.org";
    static constexpr char kClub[] = "club@lists.example.org";
    static constexpr char kGardenRequest[] = "garden-request@lists.example.org";
    static constexpr char kAnna[] = "anna@example.com";

    FailingFiles files;
    FailingDirectory directory;
    std::optional<FailingQueue> queue;

 private:
    void CloseChannel();

    std::optional<std::string> temp_before_;
    std::vector<std::pair<std::string, std::string>> lists_;
    std::set<unsigned long> submitted_;
    MQContext* channel_ = nullptr;
    std::unique_ptr<stEnvelope> taken_;
    StringChain processed_;
};

// The lines of `text`, each ended by "\n", joined; for tables of log lines.
[[nodiscard]] std::string Lines(std::initializer_list<std::string> lines);

// `text` with each number behind "size: " written as "?".
[[nodiscard]] std::string WithoutSizes(std::string text);

}  // namespace dl::testing
