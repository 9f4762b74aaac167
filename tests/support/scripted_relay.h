// A mail server in the test's own process that answers as the test says, and keeps what it got.
//
// Listens on a free port of 127.0.0.1, or on a Unix socket; a thread for each connection. `script`
// is asked at each step and may be called by several threads at once. It ends with the object.
#pragma once

#include <functional>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace dl::testing
{

// One step of a connection: "CONNECT", a command's verb, or "." for the end of a message.
struct RelayStep {
    std::string verb;
    std::string line;     // the whole command
    int connection = 0;   // from 1
    int transaction = 0;  // of this connection, from 1
    int recipient = 0;    // how many RCPT commands were in this transaction before this one; after
                          // the dot, with LMTP, the number of the recipient
    int accepted = 0;     // of those
};

struct RelayReaction {
    std::string reply;   // without the last line end; empty: none
    bool close = false;  // behind the reply
    bool stall = false;  // says and reads nothing more
};

struct RelayedMessage {
    std::string sender;
    std::string mail_arguments;
    std::vector<std::string> recipients;  // accepted ones
    std::string text;                     // as sent, added dots taken off
    int connection = 0;
    bool answered = false;  // with 2yz, all of it written to the socket
};

class ScriptedRelay
{
 public:
    using Script = std::function<std::optional<RelayReaction>(const RelayStep&)>;
    struct Options {
        bool lmtp = false;
        std::vector<std::string> abilities = {"PIPELINING", "8BITMIME", "SMTPUTF8", "SIZE 20000000",
                                              "ENHANCEDSTATUSCODES"};
        std::string socket;  // a Unix socket instead
        int port = 0;        // 0: any
    };

    explicit ScriptedRelay(Script script = nullptr) : ScriptedRelay(std::move(script), Options()) {}
    ScriptedRelay(Script script, Options options);
    ~ScriptedRelay();
    ScriptedRelay(const ScriptedRelay&) = delete;
    ScriptedRelay& operator=(const ScriptedRelay&) = delete;

    [[nodiscard]] int Port() const { return port_; }
    [[nodiscard]] std::vector<RelayedMessage> Messages() const;
    // All recipients of answered messages, in order of arrival.
    [[nodiscard]] std::vector<std::string> Recipients() const;
    [[nodiscard]] int Connections() const;
    // All commands, in order of arrival.
    [[nodiscard]] std::vector<std::string> Commands() const;

 private:
    struct Client;
    void Listen();
    void Serve(int fd, int number);
    bool Step(Client& client, RelayStep step, const std::string& usual);
    bool Command(Client& client, const std::string& line);
    bool EndOfMessage(Client& client);

    const Script script_;
    const Options options_;
    int listener_ = -1;
    int port_ = 0;
    std::thread accepting_;
    mutable std::mutex mutex_;
    bool ends_ = false;
    int connections_ = 0;
    std::list<int> open_;
    std::vector<std::thread> threads_;
    std::vector<RelayedMessage> messages_;
    std::vector<std::string> commands_;
};

// Reacts to the steps of which `condition` is true; to those of one verb.
[[nodiscard]] ScriptedRelay::Script When(std::function<bool(const RelayStep&)> condition,
                                         RelayReaction reaction);
[[nodiscard]] ScriptedRelay::Script When(const std::string& verb, RelayReaction reaction);

}  // namespace dl::testing
