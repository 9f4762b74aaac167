// One directory entry becomes one list.

#include "tests/lists/lists_fixture.h"

namespace dl::testing
{
namespace
{

constexpr char kList[] = "team@example.org";

class Load : public ListsFixture
{
 protected:
    // The list that the directory holds, loaded.
    _mailinglist Loaded()
    {
        ldapClient client;
        EXPECT_EQ(client.ldapClientConnect("", 0), 0);
        EXPECT_EQ(client.ldapClientBind("", ""), 0);
        SearchReq found = client.ldapClientSearch(nullptr, 2, false, "objectclass=qvlist");
        _mailinglist record;
        EXPECT_EQ(found.entries.size(), 1U);
        EXPECT_TRUE(LoadMailingList(kList, &found.entries.at(0), &record));
        return record;
    }
};

std::string Text(const std::optional<std::string>& text)
{
    return text ? *text : "null";
}

using Fields = std::vector<std::pair<const char*, std::string>>;

Fields FieldsOf(const _mailinglist& r)
{
    using Spam = AntiSpamConfig::Text;
    const auto number = [](int value) { return std::to_string(value); };
    return {
        {"owner", Text(r.owner)},
        {"subscribe", Text(r.subscribe_text)},
        {"unsubscribe", Text(r.unsubscribe_text)},
        {"welcome", Text(r.welcome_text)},
        {"disclaimer", Text(r.disclaimer_text)},
        {"html", Text(r.disclaimer_html)},
        {"mode", number(r.mode)},
        {"archive", number(r.archive)},
        {"hour", number(r.digest_hour)},
        {"minute", number(r.digest_minute)},
        {"size", number(static_cast<int>(r.max_digest_size))},
        {"frequency", number(r.digest_frequency)},
        {"handling", number(r.invalid_posting)},
        {"day", number(r.digest_day)},
        {"mime", number(r.use_mime_digest)},
        {"auto", number(r.auto_subscription)},
        {"posting", number(r.posting_allowed)},
        {"receipt", number(r.remove_return_receipt)},
        {"spam", number(r.spam_settings.KestruneAction())},
        {"reason", r.spam_settings.Get(Spam::kXBounceReason)},
        {"white", r.spam_settings.Get(Spam::kWhiteList)},
        {"ip", r.spam_settings.Get(Spam::kIPWhiteList)},
        {"rbl", number(r.spam_settings.HostAction("rbl"))},
    };
}

// "field=value " of each field that is not as in a list without attributes.
std::string Differences(const _mailinglist& record)
{
    const Fields initial = FieldsOf({});
    std::string text;
    for (std::size_t i = 0; const auto& [name, value] : FieldsOf(record))
        if (value != initial[i++].second)
            text += (text.empty() ? "" : " ") + std::string(name) + "=" + value;
    return text;
}

// Entries lie in tests/data/list_attributes.txt, with the fields and log lines that come of them.
TEST_F(Load, Attributes)
{
    for (const DataBlock& row : ReadBlocks("list_attributes.txt")) {
        SCOPED_TRACE(row.name);
        Directory(List(kList, row.in));
        log.Clear();
        const std::string differences = Differences(Loaded());
        std::string logged = Logged();
        const std::string counts =
            "6 There are 0 digest mode members for mailing list team@example.org\n"
            "6 There are 0 immediate mode members for mailing list team@example.org\n";
        const std::size_t at = logged.find(counts);
        ASSERT_NE(at, std::string::npos) << logged;
        EXPECT_EQ(differences + "\n" + logged.erase(at, counts.size()), row.want);
    }
}

// The day's line comes last, whatever the order of the attributes.
TEST_F(Load, LinesComeInTheOrderOfTheAttributes)
{
    Directory(List(kList,
                   "listmember: Digest;d@example.com\nwhichday: 5\nmode: 1\nfrequency: weekly\n"
                   "listmember: Immediate;i@example.com\nlistmember: Nobody;n@example.com\n"
                   "archive: 0\nlistmember: Immediate;Blocked;b@example.com\nmode: 0\n"));
    (void)Loaded();
    EXPECT_EQ(Logged(),
              "6 This is a close list\n"
              "6 Message digest will be sent every week\n"
              "6 Archive mode is off\n"
              "6 This is an open list\n"
              "6 There are 1 digest mode members for mailing list team@example.org\n"
              "6 There are 2 immediate mode members for mailing list team@example.org\n"
              "6 Message digest will be sent on every Friday\n");
}

TEST_F(Load, DaysOfAMonth)
{
    const char* const ends[] = {"st", "nd", "rd", "th"};
    for (const int day : {1, 2, 3, 4, 11, 12, 13, 20, 21, 22, 23, 24, 30, 31}) {
        const std::string text = std::to_string(day);
        Directory(List(kList, "frequency: monthly\nwhichday: " + text + "\n"));
        (void)Loaded();
        const int end = day / 10 == 1 || day % 10 == 0 || day % 10 > 3 ? 3 : day % 10 - 1;
        EXPECT_TRUE(
            log.Has(6, "Message digest will be sent on " + text + ends[end] + " in every month"));
    }
}

class DigestSeed : public Load
{
 protected:
    DigestSeed() { std::filesystem::create_directories(Path("data/team@example.org/digest")); }

    const std::string file_ = Path("data/team@example.org/digest/digest.dt");
};

// The clock stands at Tuesday, 2004-11-09 11:33:20 UTC.
TEST_F(DigestSeed, IsTheFirstMoment)
{
    for (const auto& row : ReadTable("tables/directory.txt", "first digests")) {
        SCOPED_TRACE(row.at(0));
        SetZone(row.at(1));
        std::filesystem::remove(file_);
        Directory(List(kList, row.at(2)));
        (void)Loaded();
        EXPECT_EQ(ReadFile(file_), row.at(3));
    }
}

TEST_F(DigestSeed, LeavesAnExistingFileAlone)
{
    Directory(List(kList));
    for (const char* content : {"1000000000", "", "rubbish\n"}) {
        SCOPED_TRACE(content);
        Write("data/team@example.org/digest/digest.dt", content);
        ASSERT_TRUE(cache.InitCache());
        clock.now += 86'400;
        ASSERT_TRUE(cache.RefreshCache());
        EXPECT_EQ(ReadFile(file_), content);
    }
}

// The list is served all the same.
TEST_F(DigestSeed, NameThatCannotNameAFolderIsRefused)
{
    std::filesystem::create_directories(Path("data/digest"));
    std::filesystem::create_directories(Path("escaped/digest"));
    const std::string names[] = {
        "../escaped", "a/../../escaped@example.org",          ".", "..",
        "no address", std::string(250, 'a') + "@example.org",
    };
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        Directory(List(name, "listmember: Immediate;m@example.com\n", "x"));
        log.Clear();
        log.ExpectError("Mailing list " + name +
                        " has no digest: its name cannot be the name of a folder");
        ASSERT_TRUE(cache.InitCache());
        EXPECT_EQ(Names(&cache), name + " ");
        EXPECT_EQ(Members(&cache, name, "Immediate"), "m@example.com ");
    }
    std::size_t files = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(Path("")))
        files += entry.path().filename() == "digest.dt";
    EXPECT_EQ(files, 0U);
}

}  // namespace
}  // namespace dl::testing
