// One transaction: MAIL, RCPT and DATA in one go where the relay can (RFC 2920), else one by one,
// then the message.

#include <algorithm>

#include "platform/address/address.h"
#include "platform/smtp/result_private.h"
#include "platform/smtp/session.h"

namespace dl::smtp
{
namespace
{

constexpr std::size_t kCommandPiece = 32'768;

bool IsAscii(std::string_view text)
{
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return (static_cast<unsigned char>(c) & 0x80) == 0; });
}

std::string_view WithoutBrackets(std::string_view address)
{
    return address.front() == '<' ? address.substr(1, address.size() - 2) : address;
}

// Without angle brackets; empty when it must not stand in a command.
std::string_view Usable(std::string_view address)
{
    RT parsed;
    const bool usable = RecipParse(std::string(address), &parsed, 1) == 1;
    return usable ? WithoutBrackets(address) : std::string_view();
}

RecipientResult Refusal(const char* enhanced, const char* text)
{
    return {Outcome::kRefused, 0, enhanced, text};
}

Outcome ByCode(const Reply& reply)
{
    return reply.Is(2) ? Outcome::kAccepted : reply.Is(5) ? Outcome::kRefused : Outcome::kLater;
}

// "Too many recipients" (RFC 5321, 4.5.3.1.10), which old servers say with 552, and not "mailbox
// full".
bool IsTooMany(const Reply& reply)
{
    if (reply.code == 452)
        return reply.enhanced.empty() || reply.enhanced[2] != '2';
    return reply.code == 552 && (reply.enhanced.empty() || reply.enhanced == "5.5.3");
}

}  // namespace

struct Session::Plan {
    const Transaction& transaction;
    TransactionResult& result;
    std::vector<std::uint32_t> sent = {};      // recipients that the relay is asked for
    std::vector<std::uint32_t> accepted = {};  // of those
    std::string_view sender = {};
    bool utf8 = false;
    bool reset = false;
    bool confused = false;  // it refused the sender and then took recipients
    Reply mail = {};        // when it was refused
    Reply data = {};

    [[nodiscard]] std::size_t Commands() const { return sent.size() + 2 + (reset ? 1 : 0); }
    // Gives all of `which` that `result`.
    void Settle(const std::vector<std::uint32_t>& which, const RecipientResult& to)
    {
        for (const std::uint32_t index : which)
            result.recipients[index] = to;
    }
};

TransactionResult Session::Send(const Transaction& transaction)
{
    TransactionResult result;
    result.recipients.resize(transaction.recipients.size());
    Plan plan{transaction, result};
    MakePlan(&plan);
    if (plan.sent.empty())
        return result;
    if (IsOpen() && !parser_.Empty())
        Fail("the relay said something that it was not asked for");
    SendEnvelope(&plan);
    more_ = nullptr;
    ++transactions_;
    result.accepted = plan.accepted.size();
    result.lost = !IsOpen();
    return result;
}

void Session::MakePlan(Plan* plan)
{
    const Transaction& transaction = plan->transaction;
    auto& recipients = plan->result.recipients;
    if (transaction.sender != "<>" && !transaction.sender.empty())
        plan->sender = Usable(transaction.sender);
    const bool sender_utf8 = !IsAscii(plan->sender);
    const bool too_big =
        abilities_.max_size > 0 && transaction.message->WireBytes() > abilities_.max_size;
    for (std::uint32_t i = 0; i < recipients.size(); ++i) {
        const std::string_view address = Usable(transaction.recipients[i]);
        const bool utf8 = sender_utf8 || !IsAscii(address);
        if (address.empty()) {
            recipients[i] = Refusal("5.1.3", "the address cannot be used");
        } else if (utf8 && !abilities_.utf8) {
            recipients[i] =
                Refusal("5.6.7", "the address needs SMTPUTF8, which the relay does not offer");
        } else if (too_big) {
            recipients[i] = Refusal("5.3.4", "the message is larger than the relay takes");
        } else {
            plan->sent.push_back(i);
            plan->utf8 = plan->utf8 || utf8;
        }
    }
    plan->reset = needs_reset_;
}

// Commands are numbered: RSET when it is needed, MAIL, each RCPT, DATA.
void Session::AppendCommand(const Plan& plan, std::size_t command, std::string* out) const
{
    if (plan.reset && command == 0) {
        *out += "RSET\r\n";
        return;
    }
    const std::size_t place = command - (plan.reset ? 1 : 0);
    if (place > plan.sent.size()) {
        *out += "DATA\r\n";
        return;
    }
    if (place > 0) {
        *out += "RCPT TO:<";
        *out += WithoutBrackets(plan.transaction.recipients[plan.sent[place - 1]]);
        *out += ">\r\n";
        return;
    }
    const MessageFile& message = *plan.transaction.message;
    *out += "MAIL FROM:<";
    *out += plan.sender;
    *out += '>';
    if (abilities_.size)
        *out += " SIZE=" + std::to_string(message.WireBytes());
    if (abilities_.eight_bit && message.EightBit())
        *out += " BODY=8BITMIME";
    if (plan.utf8)
        *out += " SMTPUTF8";
    *out += "\r\n";
}

void Session::SendEnvelope(Plan* plan)
{
    std::size_t queued = 0;
    const std::size_t all = plan->Commands();
    if (abilities_.pipelining)
        more_ = [this, plan, all, &queued](std::string* out) {
            while (queued < all && out->size() < kCommandPiece)
                AppendCommand(*plan, queued++, out);
            return queued < all;
        };
    bool goes_on = IsOpen();
    for (std::size_t command = 0; goes_on && command < all; ++command) {
        if (!abilities_.pipelining) {
            const bool is_data = command + 1 == all;
            if (plan->mail.code != 0 || (is_data && plan->accepted.empty()))
                break;
            AppendCommand(*plan, command, &output_);
        }
        Reply reply;
        goes_on = NextReply(&reply, relay_.answer_timeout) && NoteReply(plan, command, reply);
    }
    if (goes_on) {
        FollowData(plan);
        return;
    }
    // The transaction did not come about: who was refused stays so, no other is answered for good.
    const RecipientResult rest = plan->mail.code != 0
                                     ? ResultOf(ByCode(plan->mail), plan->mail)
                                     : RecipientResult{Outcome::kLater, 0, "", failure_};
    for (const std::uint32_t index : plan->sent) {
        RecipientResult& recipient = plan->result.recipients[index];
        if (recipient.code < 400 || recipient.outcome == Outcome::kNextTime)
            recipient = rest;
    }
}

// False when the transaction cannot go on.
bool Session::NoteReply(Plan* plan, std::size_t command, const Reply& reply)
{
    if (reply.code == 421) {
        plan->mail = reply;
        Fail("the relay closed the connection");
        return false;
    }
    if (plan->reset && command == 0) {
        if (!reply.Is(2))
            Fail("the relay refused to begin a new transaction");
        return reply.Is(2);
    }
    const std::size_t place = command - (plan->reset ? 1 : 0);
    if (place > plan->sent.size()) {
        plan->data = reply;
        return true;
    }
    if (reply.Is(3)) {
        Fail("the relay sent a reply that cannot be understood");
        return false;
    }
    if (place == 0) {
        if (!reply.Is(2))
            plan->mail = reply;
        return true;
    }
    if (plan->mail.code != 0) {
        plan->confused = plan->confused || reply.Is(2);
        return true;
    }
    const std::uint32_t index = plan->sent[place - 1];
    const bool too_many = !plan->accepted.empty() && IsTooMany(reply);
    plan->result.recipients[index] = ResultOf(too_many ? Outcome::kNextTime : ByCode(reply), reply);
    if (reply.Is(2))
        plan->accepted.push_back(index);
    return true;
}

// After the reply to DATA, or without DATA when nobody was accepted one by one.
void Session::FollowData(Plan* plan)
{
    needs_reset_ = true;
    if (plan->mail.code != 0) {
        plan->Settle(plan->sent, ResultOf(ByCode(plan->mail), plan->mail));
        plan->accepted.clear();
    }
    const Reply& data = plan->data;
    if (data.Is(3) && !plan->accepted.empty()) {
        SendMessage(plan);
        return;
    }
    if (data.Is(3) && plan->confused) {
        Fail("the relay wants a message that it has refused");  // they would get an empty one
        return;
    }
    if (data.Is(3)) {  // the empty message must be ended (RFC 2920, 3.1)
        Reply ignored;
        if (relay_.lmtp) {  // which has no reply to it, for it is for nobody
            output_ += ".\r\n";
            Quit();
        } else if (!Command(".", &ignored) || ignored.code == 421) {
            Fail("the relay closed the connection");
        }
        return;
    }
    if (data.Is(2)) {
        Fail("the relay sent a reply that cannot be understood");
        plan->Settle(plan->accepted, {Outcome::kLater, 0, "", failure_});
    } else if (data.code != 0) {
        plan->Settle(plan->accepted, ResultOf(ByCode(data), data));
    }
}

// In LMTP each reply is one recipient's: of those who have none yet, nothing is known.
void Session::NoteEarlyReplies(Plan* plan, Reply reply)
{
    const RecipientResult untold{Outcome::kLater, 0, "", failure_};
    const auto result = [&] {
        return reply.Is(4) || reply.Is(5) ? ResultOf(ByCode(reply), reply) : untold;
    };
    plan->Settle(plan->accepted, relay_.lmtp && reply.code != 421 ? untold : result());
    bool more = relay_.lmtp && reply.code != 421;
    for (std::size_t i = 0; more && i < plan->accepted.size(); ++i) {
        plan->result.recipients[plan->accepted[i]] = result();
        more = NextReply(&reply, std::chrono::milliseconds(0));  // that have come already
    }
}

void Session::SendMessage(Plan* plan)
{
    plan->result.data_sent = true;
    WireReader reader(*plan->transaction.message);
    bool whole = false;
    more_ = [this, &reader, &whole](std::string* out) {
        const WireReader::Result result = reader.Next(out);
        whole = result == WireReader::Result::kEnd;
        source_failed_ = result == WireReader::Result::kFailed;
        return result == WireReader::Result::kMore;
    };
    const auto sent_whole = [&] { return whole && written_ == output_.size(); };
    const std::size_t replies = relay_.lmtp ? plan->accepted.size() : 1;
    std::size_t answered = 0;
    bool any_taken = false;
    Reply reply;
    while (answered < replies && NextReply(&reply, relay_.data_timeout)) {
        if (!sent_whole()) {
            // It answers before it has seen the end: it does not want the rest.
            Fail("the relay did not take the message whole");
            return NoteEarlyReplies(plan, reply);
        }
        if (reply.Is(3)) {
            Fail("the relay sent a reply that cannot be understood");
            break;
        }
        const RecipientResult result = ResultOf(ByCode(reply), reply);
        any_taken = any_taken || result.outcome == Outcome::kAccepted;
        if (relay_.lmtp)
            plan->result.recipients[plan->accepted[answered]] = result;
        else
            plan->Settle(plan->accepted, result);
        ++answered;
        if (reply.code == 421) {
            Fail("the relay closed the connection");
            break;
        }
    }
    const Outcome without = sent_whole() ? Outcome::kUnknown : Outcome::kLater;
    for (std::size_t i = answered == 0 ? 0
                         : relay_.lmtp ? answered
                                       : plan->accepted.size();
         i < plan->accepted.size(); ++i)
        plan->result.recipients[plan->accepted[i]] = {without, 0, "", failure_};
    needs_reset_ = false;
    // A message refused as a whole may have been refused before its end came; the relay would then
    // take the rest of it for commands, and replies would be matched to the wrong ones.
    if (!any_taken)
        Quit();
}

}  // namespace dl::smtp
