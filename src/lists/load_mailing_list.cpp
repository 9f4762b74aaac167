// One directory entry becomes one list record.

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <new>

#include "lists/mailing_list.h"
#include "platform/address/address.h"
#include "platform/clock/clock.h"
#include "platform/config/data_path.h"
#include "platform/log/log.h"
#include "schedule/date_arithmetic.h"
#include "schedule/due_file.h"

namespace dl
{
namespace
{

void ReadReceipt(const std::string& value, _mailinglist* record)
{
    record->remove_return_receipt = !EqualNoCase(value, "NO");
    DlLog(6, record->remove_return_receipt ? "Return-receipt-to header will be removed"
                                           : "Return-receipt-to header will be retained");
}

void ReadAutoSubscription(const std::string& value, _mailinglist* record)
{
    record->auto_subscription = EqualNoCase(value, "YES");
    if (record->auto_subscription)
        DlLog(6, "Auto subscription is enabled for closed list");
}

void ReadPostingPermission(const std::string& value, _mailinglist* record)
{
    if (EqualNoCase(value, "allow")) {
        record->posting_allowed = true;
        DlLog(6, "Mail posting is allowed to new mailing member by default.");
    } else if (EqualNoCase(value, "block")) {
        record->posting_allowed = false;
        DlLog(6, "Mail posting is not allowed to new mailing member by default.");
    }
}

void ReadInvalidPosting(const std::string& value, _mailinglist* record)
{
    if (EqualNoCase(value, "bounce")) {
        record->invalid_posting = kBouncePosting;
        DlLog(6, "Invalid posting will be bounced to the sender.");
    } else if (EqualNoCase(value, "forward")) {
        record->invalid_posting = kForwardPosting;
        DlLog(6, "Invalid posting will be forwarded to the list owner.");
    } else if (EqualNoCase(value, "discard")) {
        record->invalid_posting = kDiscardPosting;
        DlLog(6, "Invalid posting will be discarded");
    } else {
        record->invalid_posting = kBounceAndForwardPosting;
        DlLog(6, "Invalid posting will be bounced to the sender and forwarded to the list owner.");
    }
}

void ReadMimeDigest(const std::string& value, _mailinglist* record)
{
    record->use_mime_digest = EqualNoCase(value, "YES");
    if (record->use_mime_digest)
        DlLog(6, "Message digest will be sent in multipart/digest format");
}

// Kbytes are stored times 100, which is what message sizes are compared with.
void ReadMaxDigestSize(const std::string& value, _mailinglist* record)
{
    constexpr long kLargest = std::numeric_limits<std::int32_t>::max() / 100;
    const long kbytes = std::clamp(std::strtol(value.c_str(), nullptr, 10), 0L, kLargest);
    record->max_digest_size = static_cast<std::int32_t>(kbytes * 100);
    if (kbytes == 0)
        DlLog(6, "Message digest has no maximum size limit");
    else
        DlLog(6, "Message digest maximum size is %ld Kbytes", kbytes);
}

void ReadFrequency(const std::string& value, _mailinglist* record)
{
    if (EqualNoCase(value, "daily")) {
        record->digest_frequency = kDaily;
        DlLog(6, "Message digest will be sent every day");
    } else if (EqualNoCase(value, "weekly")) {
        record->digest_frequency = kWeekly;
        DlLog(6, "Message digest will be sent every week");
    } else if (EqualNoCase(value, "monthly")) {
        record->digest_frequency = kMonthly;
        DlLog(6, "Message digest will be sent every month");
    }
}

int Number(const char* text)
{
    return static_cast<int>(std::clamp(std::strtol(text, nullptr, 10),
                                       static_cast<long>(std::numeric_limits<int>::min()),
                                       static_cast<long>(std::numeric_limits<int>::max())));
}

void ReadWhichDay(const std::string& value, _mailinglist* record)
{
    record->digest_day = Number(value.c_str());
}

void ReadArchive(const std::string& value, _mailinglist* record)
{
    record->archive = EqualNoCase(value, "0") ? 0 : 1;
    DlLog(6, "Archive mode is %s", record->archive ? "on" : "off");
}

// "%d:%d"; a number that is missing is 0.
void ReadDigestTime(const std::string& value, _mailinglist* record)
{
    char* end = nullptr;
    const long hour = std::strtol(value.c_str(), &end, 10);
    const long minute = *end == ':' ? std::strtol(end + 1, nullptr, 10) : 0;
    record->digest_hour = hour < 0 || hour > 23 ? 0 : static_cast<std::int32_t>(hour);
    record->digest_minute = minute < 0 || minute > 59 ? 0 : static_cast<std::int32_t>(minute);
    DlLog(6, "Message digest will be sent at %d:%d", record->digest_hour, record->digest_minute);
}

void ReadMode(const std::string& value, _mailinglist* record)
{
    if (value == "0")
        record->mode = kOpenList;
    else if (value == "1")
        record->mode = kClosedList;
    DlLog(6, "This is %s list", record->mode == kOpenList ? "an open" : "a close");
}

template <std::optional<std::string> _mailinglist::*Field>
void ReadPath(const std::string& value, _mailinglist* record)
{
    record->*Field = value;
}

struct AttributeReader {
    const char* name;
    void (*read)(const std::string& value, _mailinglist* record);
};

constexpr AttributeReader kAttributes[] = {
    {"RemoveReturnReceiptTo", ReadReceipt},
    {"AutoSubscription", ReadAutoSubscription},
    {"postingpermission", ReadPostingPermission},
    {"InvalidPosting", ReadInvalidPosting},
    {"UseMimeDigest", ReadMimeDigest},
    {"maxdigestsize", ReadMaxDigestSize},
    {"frequency", ReadFrequency},
    {"whichday", ReadWhichDay},
    {"archive", ReadArchive},
    {"DigestDeliverTime", ReadDigestTime},
    {"mode", ReadMode},
    {"subtxtpath", ReadPath<&_mailinglist::subscribe_text>},
    {"unsubtxtpath", ReadPath<&_mailinglist::unsubscribe_text>},
    {"welcometxtpath", ReadPath<&_mailinglist::welcome_text>},
    {"disclaimertxtpath", ReadPath<&_mailinglist::disclaimer_text>},
    {"disclaimerhtmlpath", ReadPath<&_mailinglist::disclaimer_html>},
};

void ReadAttributes(const SearchEntry& entry, _mailinglist* record)
{
    for (const SearchAttribute& attribute : entry.attributes) {
        const auto* known = std::find_if(std::begin(kAttributes), std::end(kAttributes),
                                         [&](const AttributeReader& reader) {
                                             return EqualNoCase(attribute.name, reader.name);
                                         });
        if (known != std::end(kAttributes))
            known->read(attribute.value, record);
        else
            record->spam_settings.ApplyAttribute(attribute.name, attribute.value);
    }
}

const char* DaySuffix(int day)
{
    switch (day) {
        case 1:
        case 21:
        case 31:
            return "st";
        case 2:
        case 22:
            return "nd";
        case 3:
        case 23:
            return "rd";
        default:
            return "th";
    }
}

void ClampDigestDay(_mailinglist* record)
{
    static constexpr const char* kDays[] = {"Monday", "Tuesday",  "Wednesday", "Thrusday",
                                            "Friday", "Saturday", "Sunday"};
    if (record->digest_frequency == kWeekly) {
        record->digest_day = std::clamp(record->digest_day, 1, 7);
        DlLog(6, "Message digest will be sent on every %s", kDays[record->digest_day - 1]);
    } else if (record->digest_frequency == kMonthly) {
        record->digest_day = std::clamp(record->digest_day, 1, 31);
        DlLog(6, "Message digest will be sent on %d%s in every month", record->digest_day,
              DaySuffix(record->digest_day));
    }
}

}  // namespace

bool LoadMailingList(const std::string& list, SearchEntry* entry, _mailinglist* record)
{
    record->name = list;
    TakeMembers(list, entry, record);
    ReadAttributes(*entry, record);
    DlLog(6, "There are %d digest mode members for mailing list %s", record->digest_count,
          list.c_str());
    DlLog(6, "There are %d immediate mode members for mailing list %s", record->immediate_count,
          list.c_str());
    ClampDigestDay(record);
    if (!IsSafeFolderName(list))
        DlLog(1, "Mailing list %s has no digest: its name cannot be the name of a folder",
              list.c_str());
    SeedDigestSchedule(*record, DataPath());
    return true;
}

void SeedDigestSchedule(const _mailinglist& record, const std::string& data_path)
{
    if (!IsSafeFolderName(record.name))
        return;
    const std::string path = DigestDuePath(data_path, record.name);
    if (DueFile::Exists(path))
        return;
    const std::time_t first =
        adjusttime(Now(), record.digest_hour, record.digest_minute, record.digest_frequency,
                   record.digest_day, record.digest_day);
    (void)DueFile::Create(path, first);  // the folder may be missing: the list has no digest then
}

}  // namespace dl
