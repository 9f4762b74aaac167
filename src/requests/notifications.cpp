#include "requests/notifications.h"

#include "lists/cache_shortcuts.h"
#include "platform/log/log.h"
#include "requests/text_message.h"

namespace dl
{
namespace
{

constexpr char kNoEntry[] = "Unable to create an entry in Message Queue";

// One kind of notice; its headers are those of every text message.
struct Notice {
    GeneratorKind kind;
    const char* subject;  // format with the list
    bool (*write_body)(GeneratedMessage& notice, const std::string& list, int outcome);
    const char* sent;  // log line, with the list and the requester
    int result_without_first_lines = -1;
};

bool WriteSubscriptionBody(GeneratedMessage& notice, const std::string& list, int outcome)
{
    const std::string local = list.substr(0, list.find('@'));
    const std::string domain = list.substr(list.find('@') + 1);
    switch (outcome) {
        case 1:
        case 2:
            return notice.Print(
                       "Your subscription request of the mailing list %s has been "
                       "processed successfully.\r\n",
                       list.c_str()) &&
                   (outcome == 2 || AppendTextFile(notice, GetWelcomeTextFile(list)));
        case 0:
            return notice.Print(
                "The mailing list %s does not support automatic subscription via e-mail.\r\n"
                "Your subscription request has been forwarded to the list owner.\r\n"
                "The list owner will process your subscription shortly.\r\n",
                list.c_str());
        case -1:
            return notice.Print(
                "Sorry, there was an error occurred while processing your subscription request of "
                "the mailing list %s.\r\nPlease retry or send your request directly to the mailing "
                "list owner(%.*s-owner@%s).\r\n\r\n",
                list.c_str(), static_cast<int>(local.size()), local.c_str(), domain.c_str());
        default:
            return true;
    }
}

bool WriteUnsubscriptionBody(GeneratedMessage& notice, const std::string& list, int outcome)
{
    if (outcome == 0)
        return notice.Print("You have been successfully removed from the mailing list %s.\r\n",
                            list.c_str());
    const std::string local = list.substr(0, list.find('@'));
    const std::string domain = list.substr(list.find('@') + 1);
    return notice.Print(
        "Sorry, there was an error occurred while processing your unsubscription request of the "
        "mailing list %s.\r\nPlease retry or send your request directly to the mailing list owner "
        "(%.*s-owner@%s).\r\n",
        list.c_str(), static_cast<int>(local.size()), local.c_str(), domain.c_str());
}

bool WriteArchiveBody(GeneratedMessage& notice, const std::string& list, int outcome)
{
    if (outcome == 0)
        return notice.Print(
            "You have been successfully registered to the archives of %s mailing list.\r\n",
            list.c_str());
    return notice.Print(
        "Sorry, there was an error occurred while processing your archive registration to the "
        "mailing list %s.\r\n",
        list.c_str());
}

constexpr Notice kSubscription = {
    .kind =
        {
            .create_failed = kNoEntry,
            .insert_failed = "InsertMQChannel failed, notification message for subscription "
                             "request cannot be sent to "
                             "the sender.",
            .put_failed = "PutMQEnvelope failed, notification message for subscription request "
                          "cannot be sent to "
                          "the sender.",
            .close_failed = "CloseMQEntry failed, notification message for subscription request "
                            "cannot be sent to "
                            "the sender.",
        },
    .subject = "Subject: Your subscription of %s\r\n\r\n",
    .write_body = WriteSubscriptionBody,
    .sent = "A notification of subscription request of %s has been sent to %s",
    .result_without_first_lines = 0,
};
constexpr Notice kUnsubscription = {
    .kind =
        {
            .create_failed = kNoEntry,
            .insert_failed = "InsertMQChannel failed, notification message for subscription "
                             "removal cannot be sent to "
                             "the sender.",
            .put_failed = "PutMQEnvelope failed, notification message for subscription removal "
                          "cannot be sent to "
                          "the sender.",
            .close_failed = "CloseMQEntry failed, notification message for subscription removal "
                            "cannot be sent to "
                            "the sender.",
        },
    .subject = "Subject: Your unsubscription of %s\r\n\r\n",
    .write_body = WriteUnsubscriptionBody,
    .sent = "A notification of subscription removal of %s has been sent to %s",
};
constexpr Notice kArchiveRegistration = {
    .kind =
        {
            .create_failed = kNoEntry,
            .unsent = Unsent::kClose,
            .submission_is_checked = false,
        },
    .subject = "Subject: Your archive registration to %s\r\n\r\n",
    .write_body = WriteArchiveBody,
    .sent = "A notification of archive registration to %s has been sent to %s",
};

int Notify(const Notice& kind, const Incoming& message, const std::string& list,
           const std::string& channel, int outcome)
{
    GeneratedMessage notice(kind.kind);
    if (!notice.IsMade() || !notice.Open())
        return -1;
    if (!notice.Received() || !notice.MessageId())
        return kind.result_without_first_lines;
    const std::string from = RequestAddress(list);
    const std::string to = message.Sender();
    if (!notice.Date() || !WriteTextHeaders(notice, from, to) ||
        !notice.Print(kind.subject, list.c_str()) || !kind.write_body(notice, list, outcome) ||
        !notice.Send(from, to, channel, 0, channel))
        return -1;
    DlLog(6, kind.sent, list.c_str(), to.c_str());
    return 0;
}

}  // namespace

int NotifySubscription(const Incoming& message, const std::string& list, const std::string& channel,
                       int outcome)
{
    return Notify(kSubscription, message, list, channel, outcome);
}

int NotifyUnsubscription(const Incoming& message, const std::string& list,
                         const std::string& channel, int outcome)
{
    return Notify(kUnsubscription, message, list, channel, outcome);
}

int NotifyArchiveRegistration(const Incoming& message, const std::string& list,
                              const std::string& channel, int outcome)
{
    return Notify(kArchiveRegistration, message, list, channel, outcome);
}

}  // namespace dl
