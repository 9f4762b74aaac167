// Lets chosen calls of the directory fail, whatever back end is configured.
//
// While it lives, new clients stand on the configured back end behind it. Calls are counted over
// all clients; only those that do not fail reach the directory.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/directory/directory.h"
#include "tests/support/faults.h"

namespace dl::testing
{

enum class DirectoryCall {
    kConnect,
    kBind,
    kSearch,
    kModify
};  // adding and removing entries: kModify

class FailingDirectory : public Faults<DirectoryCall>
{
 public:
    FailingDirectory()
    {
        SetDirectoryFactory([this] { return std::make_unique<Session>(this); });
    }
    ~FailingDirectory() { SetDirectoryFactory(nullptr); }
    FailingDirectory(const FailingDirectory&) = delete;
    FailingDirectory& operator=(const FailingDirectory&) = delete;

    // The result of a change that fails, and how many entries come of a search before it does.
    ModifyResult result = ModifyResult::kUnreachable;
    std::size_t entries = 0;
    std::function<void()> before_search;
    // A file passes for a server: it tells changes by the stamps that are written there.
    bool stamps_entries = false;

 private:
    class Session : public DirectorySession
    {
     public:
        explicit Session(FailingDirectory* owner) : owner_(owner), real_(ConfiguredSession()) {}

        bool Connect(const std::string& host, int port) override
        {
            return !owner_->Fails(DirectoryCall::kConnect) && real_->Connect(host, port);
        }
        bool Bind(const std::string& user, const std::string& password) override
        {
            return !owner_->Fails(DirectoryCall::kBind) && real_->Bind(user, password);
        }
        bool Search(const SearchQuery& query, NamePool* names, const EntrySink& take) override
        {
            if (owner_->before_search)
                owner_->before_search();
            if (!owner_->Fails(DirectoryCall::kSearch))
                return real_->Search(query, names, take);
            SearchQuery part = query;
            part.limit = owner_->entries;
            if (part.limit != 0)
                (void)real_->Search(part, names, take);  // it breaks off whatever came
            return false;
        }
        [[nodiscard]] DirectoryMark Mark() const override
        {
            DirectoryMark mark = real_->Mark();
            if (owner_->stamps_entries)
                mark.state.clear();
            return mark;
        }
        ModifyResult Modify(const std::string& entry,
                            const std::vector<AttributeChange>& changes) override
        {
            return ChangeFails() ? owner_->result : real_->Modify(entry, changes);
        }
        ModifyResult Add(const std::string& entry,
                         const std::vector<SearchAttribute>& attributes) override
        {
            return ChangeFails() ? owner_->result : real_->Add(entry, attributes);
        }
        ModifyResult Delete(const std::string& entry) override
        {
            return ChangeFails() ? owner_->result : real_->Delete(entry);
        }
        void Unbind() override { real_->Unbind(); }

     private:
        bool ChangeFails() { return owner_->Fails(DirectoryCall::kModify); }

        FailingDirectory* owner_;
        std::unique_ptr<DirectorySession> real_;
    };
};

}  // namespace dl::testing
