// One directory entry becomes one list.

#include <functional>

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

// "field=value " of each field that is not as in a list without attributes.
std::string Differences(const _mailinglist& record)
{
    const std::pair<const char*, std::function<std::string(const _mailinglist&)>> fields[] = {
        {"owner", [](const auto& r) { return Text(r.owner); }},
        {"subscribe", [](const auto& r) { return Text(r.subscribe_text); }},
        {"unsubscribe", [](const auto& r) { return Text(r.unsubscribe_text); }},
        {"welcome", [](const auto& r) { return Text(r.welcome_text); }},
        {"disclaimer", [](const auto& r) { return Text(r.disclaimer_text); }},
        {"html", [](const auto& r) { return Text(r.disclaimer_html); }},
        {"mode", [](const auto& r) { return std::to_string(r.mode); }},
        {"archive", [](const auto& r) { return std::to_string(r.archive); }},
        {"hour", [](const auto& r) { return std::to_string(r.digest_hour); }},
        {"minute", [](const auto& r) { return std::to_string(r.digest_minute); }},
        {"size", [](const auto& r) { return std::to_string(r.max_digest_size); }},
        {"frequency", [](const auto& r) { return std::to_string(r.digest_frequency); }},
        {"handling", [](const auto& r) { return std::to_string(r.invalid_posting); }},
        {"day", [](const auto& r) { return std::to_string(r.digest_day); }},
        {"mime", [](const auto& r) { return std::to_string(r.use_mime_digest); }},
        {"auto", [](const auto& r) { return std::to_string(r.auto_subscription); }},
        {"posting", [](const auto& r) { return std::to_string(r.posting_allowed); }},
        {"receipt", [](const auto& r) { return std::to_string(r.remove_return_receipt); }},
        {"spam", [](const auto& r) { return std::to_string(r.spam_settings.KestruneAction()); }},
        {"reason",
         [](const auto& r) { return r.spam_settings.Get(AntiSpamConfig::Text::kXBounceReason); }},
        {"white",
         [](const auto& r) { return r.spam_settings.Get(AntiSpamConfig::Text::kWhiteList); }},
        {"ip",
         [](const auto& r) { return r.spam_settings.Get(AntiSpamConfig::Text::kIPWhiteList); }},
        {"rbl", [](const auto& r) { return std::to_string(r.spam_settings.HostAction("rbl")); }},
    };
    const _mailinglist initial;
    std::string text;
    for (const auto& [name, value] : fields)
        if (value(record) != value(initial))
            text += std::string(name) + "=" + value(record) + " ";
    return text;
}

TEST_F(Load, AListWithoutAttributesIsOpenArchivedBouncedAndForwarded)
{
    const _mailinglist record;
    EXPECT_EQ(record.mode, kOpenList);
    EXPECT_EQ(record.archive, 1);
    EXPECT_EQ(record.invalid_posting, 3);
    EXPECT_EQ(record.digest_day, 1);
    EXPECT_EQ(record.digest_frequency, 0);
    EXPECT_EQ(record.max_digest_size, 0);
    EXPECT_TRUE(record.use_mime_digest && record.posting_allowed && record.remove_return_receipt);
    EXPECT_FALSE(record.auto_subscription || record.owner || record.disclaimer_text);
    Directory(List(kList));
    EXPECT_EQ(Differences(Loaded()), "");
    EXPECT_EQ(Loaded().name, kList);
}

TEST_F(Load, Attributes)
{
    const struct {
        const char* name;
        const char* attributes;
        const char* differences;
        const char* logged;
    } rows[] = {
        {"receipt kept", "RemoveReturnReceiptTo: no\n", "receipt=0 ",
         "6 Return-receipt-to header will be retained\n"},
        {"receipt removed", "removereturnreceiptto: NOT\n", "",
         "6 Return-receipt-to header will be removed\n"},
        {"automatic", "AutoSubscription: yes\n", "auto=1 ",
         "6 Auto subscription is enabled for closed list\n"},
        {"not automatic", "AutoSubscription: 1\n", "", ""},
        {"new members post", "postingpermission: Allow\n", "",
         "6 Mail posting is allowed to new mailing member by default.\n"},
        {"new members are blocked", "postingpermission: BLOCK\n", "posting=0 ",
         "6 Mail posting is not allowed to new mailing member by default.\n"},
        {"posting unchanged", "postingpermission: blocked\n", "", ""},
        {"bounce", "InvalidPosting: Bounce\n", "handling=1 ",
         "6 Invalid posting will be bounced to the sender.\n"},
        {"forward", "InvalidPosting: FORWARD\n", "handling=2 ",
         "6 Invalid posting will be forwarded to the list owner.\n"},
        {"discard", "InvalidPosting: discard\n", "handling=0 ",
         "6 Invalid posting will be discarded\n"},
        {"bounce and forward", "InvalidPosting: both\n", "",
         "6 Invalid posting will be bounced to the sender and forwarded to the list owner.\n"},
        {"MIME digest", "UseMimeDigest: yes\n", "",
         "6 Message digest will be sent in multipart/digest format\n"},
        {"plain digest", "UseMimeDigest: 1\n", "mime=0 ", ""},
        {"digest of 40 Kbytes", "maxdigestsize: 40\n", "size=4000 ",
         "6 Message digest maximum size is 40 Kbytes\n"},
        {"digest of any size", "maxdigestsize: 0\n", "",
         "6 Message digest has no maximum size limit\n"},
        {"negative size", "maxdigestsize: -5\n", "",
         "6 Message digest has no maximum size limit\n"},
        {"size that is no number", "maxdigestsize: big\n", "",
         "6 Message digest has no maximum size limit\n"},
        {"size beyond 32 bits", "maxdigestsize: 99999999999999999999\n", "size=2147483600 ",
         "6 Message digest maximum size is 21474836 Kbytes\n"},
        {"daily", "frequency: Daily\n", "", "6 Message digest will be sent every day\n"},
        {"weekly", "frequency: WEEKLY\n", "frequency=1 ",
         "6 Message digest will be sent every week\n"
         "6 Message digest will be sent on every Monday\n"},
        {"monthly", "frequency: monthly\n", "frequency=2 ",
         "6 Message digest will be sent every month\n"
         "6 Message digest will be sent on 1st in every month\n"},
        {"frequency unchanged", "frequency: yearly\n", "", ""},
        {"day of a daily list", "whichday: 40\n", "day=40 ", ""},
        {"day before frequency", "whichday: 4\nfrequency: weekly\n", "frequency=1 day=4 ",
         "6 Message digest will be sent every week\n"
         "6 Message digest will be sent on every Thrusday\n"},
        {"weekly day too low", "frequency: weekly\nwhichday: 0\n", "frequency=1 ",
         "6 Message digest will be sent every week\n"
         "6 Message digest will be sent on every Monday\n"},
        {"weekly day too high", "frequency: weekly\nwhichday: 8\n", "frequency=1 day=7 ",
         "6 Message digest will be sent every week\n"
         "6 Message digest will be sent on every Sunday\n"},
        {"day far out of range", "frequency: weekly\nwhichday: -99999999999999999999\n",
         "frequency=1 ",
         "6 Message digest will be sent every week\n"
         "6 Message digest will be sent on every Monday\n"},
        {"monthly day too low", "frequency: monthly\nwhichday: x\n", "frequency=2 ",
         "6 Message digest will be sent every month\n"
         "6 Message digest will be sent on 1st in every month\n"},
        {"monthly day too high", "frequency: monthly\nwhichday: 40\n", "frequency=2 day=31 ",
         "6 Message digest will be sent every month\n"
         "6 Message digest will be sent on 31st in every month\n"},
        {"archive off", "archive: 0\n", "archive=0 ", "6 Archive mode is off\n"},
        {"archive on", "archive: 00\n", "", "6 Archive mode is on\n"},
        {"digest time", "DigestDeliverTime: 23:59\n", "hour=23 minute=59 ",
         "6 Message digest will be sent at 23:59\n"},
        {"digest time of one figure each", "DigestDeliverTime: 7:5\n", "hour=7 minute=5 ",
         "6 Message digest will be sent at 7:5\n"},
        {"digest time out of range", "DigestDeliverTime: 25:70\n", "",
         "6 Message digest will be sent at 0:0\n"},
        {"only the hour out of range", "DigestDeliverTime: -1:30\n", "minute=30 ",
         "6 Message digest will be sent at 0:30\n"},
        {"only the minute out of range", "DigestDeliverTime: 6:60\n", "hour=6 ",
         "6 Message digest will be sent at 6:0\n"},
        {"digest hour alone", "DigestDeliverTime: 6\n", "hour=6 ",
         "6 Message digest will be sent at 6:0\n"},
        {"digest time that is none", "DigestDeliverTime: noon:30\n", "",
         "6 Message digest will be sent at 0:0\n"},
        {"open", "mode: 0\n", "", "6 This is an open list\n"},
        {"closed", "mode: 1\n", "mode=1 ", "6 This is a close list\n"},
        {"neither", "mode: 2\n", "", "6 This is an open list\n"},
        {"texts",
         "subtxtpath: /s\nunsubtxtpath: /u\nwelcometxtpath: /w\ndisclaimertxtpath: /d\n"
         "DisclaimerHtmlPath: /h\n",
         "subscribe=/s unsubscribe=/u welcome=/w disclaimer=/d html=/h ", ""},
        {"white lists", "x-whitelist: *@a.org,b@b.org\nx-ipwhitelist: 10.0.0.1-10.0.0.9\n",
         "white=*@a.org,b@b.org ip=10.0.0.1-10.0.0.9 ", ""},
        {"several values of a white list",
         "x-whitelist: a@a.org,\nx-whitelist: b@b.org\nx-ipwhitelist: 10.0.0.1\n"
         "x-ipwhitelist: 10.0.0.2\n",
         "white=a@a.org,b@b.org ip=10.0.0.1,10.0.0.2 ", ""},
        {"spam action", "x-spamaction: discard\n", "spam=1 rbl=1 ", ""},
        {"spam is bounced", "X-SpamAction: Bounce,no, thanks\n", "spam=3 reason=no, thanks rbl=3 ",
         ""},
        {"bounce without a text", "x-spamaction: bounce\n", "", ""},
        {"blacklist action", "x-kvtblaction: RBL,discard\n", "rbl=1 ", ""},
        {"blacklist bounce without a text", "x-kvtblaction: rbl,bounce\n", "", ""},
        {"unknown attributes", "description: mode\nmodes: 1\n", "", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Directory(List(kList, row.attributes));
        log.Clear();
        EXPECT_EQ(Differences(Loaded()), row.differences);
        std::string logged = Logged();
        const std::string counts =
            "6 There are 0 digest mode members for mailing list team@example.org\n"
            "6 There are 0 immediate mode members for mailing list team@example.org\n";
        const std::size_t at = logged.find(counts);
        ASSERT_NE(at, std::string::npos) << logged;
        EXPECT_EQ(logged.erase(at, counts.size()), row.logged);
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
    const std::pair<int, const char*> rows[] = {
        {1, "1st"},   {2, "2nd"},   {3, "3rd"},   {4, "4th"},   {11, "11th"},
        {12, "12th"}, {13, "13th"}, {20, "20th"}, {21, "21st"}, {22, "22nd"},
        {23, "23rd"}, {24, "24th"}, {30, "30th"}, {31, "31st"},
    };
    for (const auto& [day, text] : rows) {
        SCOPED_TRACE(text);
        Directory(List(kList, "frequency: monthly\nwhichday: " + std::to_string(day) + "\n"));
        log.Clear();
        (void)Loaded();
        EXPECT_TRUE(
            log.Has(6, "Message digest will be sent on " + std::string(text) + " in every month"));
    }
}

TEST_F(Load, LongValuesStayWhole)
{
    const std::string path = "/" + std::string(5000, 'p');
    const std::string address = std::string(3000, 'a') + "@example.org";
    const std::string pattern = std::string(3000, 'w');
    Directory(List(kList, "welcometxtpath: " + path + "\nlistmember: Immediate;" + address +
                              "\nx-whitelist: " + pattern + "\n"));
    const _mailinglist record = Loaded();
    EXPECT_EQ(record.welcome_text, path);
    ASSERT_EQ(record.immediate_members.size(), 1U);
    EXPECT_EQ(record.immediate_members[0].address, address);
    EXPECT_TRUE(record.spam_settings.IsWhitelistedSender(pattern));
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
    constexpr char kBerlin[] = "CET-1CEST,M3.5.0,M10.5.0/3";
    const struct {
        const char* name;
        const char* zone;
        const char* attributes;
        const char* content;
    } rows[] = {
        {"midnight today", "UTC0", "", "1099958400"},
        {"daily, later today", "UTC0", "DigestDeliverTime: 12:30\n", "1100003400"},
        {"daily, local time", kBerlin, "DigestDeliverTime: 12:30\n", "1099999800"},
        {"weekly, Tuesday", "UTC0", "frequency: weekly\nwhichday: 2\n", "1099958400"},
        {"weekly, Monday", "UTC0", "frequency: weekly\nwhichday: 1\n", "1100476800"},
        {"weekly, Sunday", "UTC0", "frequency: weekly\nwhichday: 7\n", "1100390400"},
        {"monthly, day after clamping", "UTC0", "frequency: monthly\nwhichday: 40\n", "1101772800"},
        {"monthly, earlier", "UTC0", "frequency: monthly\nwhichday: 1\nDigestDeliverTime: 6:00\n",
         "1099288800"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SetZone(row.zone);
        std::filesystem::remove(file_);
        Directory(List(kList, row.attributes));
        (void)Loaded();
        EXPECT_EQ(ReadFile(file_), row.content);
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

TEST_F(DigestSeed, IsNotMadeWithoutTheFolderAndSaysNothing)
{
    std::filesystem::remove_all(Path("data/team@example.org/digest"));
    Directory(List(kList));
    (void)Loaded();
    EXPECT_TRUE(std::filesystem::is_empty(Path("data/team@example.org")));
    EXPECT_TRUE(log.Texts(5).empty());
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
