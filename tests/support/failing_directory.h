// Lets chosen calls of the directory fail, whatever back end is configured.
//
// While it lives, new clients stand on the configured back end behind it. Calls are counted from 1
// over all clients.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/directory/directory.h"

namespace dl::testing
{

enum class DirectoryCall {
    kConnect,
    kBind,
    kSearch,
    kModify
};  // adding and removing entries: kModify

class FailingDirectory
{
 public:
    FailingDirectory()
    {
        SetDirectoryFactory([this] { return std::make_unique<Session>(this); });
    }
    ~FailingDirectory() { SetDirectoryFactory(nullptr); }
    FailingDirectory(const FailingDirectory&) = delete;
    FailingDirectory& operator=(const FailingDirectory&) = delete;

    // Lets the `nth` call from now fail, and the `times` - 1 after it. A failed modification is
    // answered `result`; only the calls that do not fail reach the directory.
    void Fail(DirectoryCall call, int nth = 1, int times = 1,
              ModifyResult result = ModifyResult::kUnreachable)
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        Count& count = counts_[call];
        count.first = count.calls + nth;
        count.last = count.first + times - 1;
        result_ = result;
    }
    [[nodiscard]] int Calls(DirectoryCall call)
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        return counts_[call].calls;
    }

 private:
    struct Count {
        int calls = 0;
        int first = 0;
        int last = -1;
    };

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
        SearchReq Search(const char* base, int scope, bool attributes_only,
                         const std::string& filter) override
        {
            if (!owner_->Fails(DirectoryCall::kSearch))
                return real_->Search(base, scope, attributes_only, filter);
            SearchReq result;
            result.failed = true;
            return result;
        }
        ModifyResult Modify(const std::string& entry,
                            const std::vector<AttributeChange>& changes) override
        {
            return owner_->Fails(DirectoryCall::kModify) ? owner_->result_
                                                         : real_->Modify(entry, changes);
        }
        ModifyResult Add(const std::string& entry,
                         const std::vector<SearchAttribute>& attributes) override
        {
            return owner_->Fails(DirectoryCall::kModify) ? owner_->result_
                                                         : real_->Add(entry, attributes);
        }
        ModifyResult Delete(const std::string& entry) override
        {
            return owner_->Fails(DirectoryCall::kModify) ? owner_->result_ : real_->Delete(entry);
        }
        void Unbind() override { real_->Unbind(); }

     private:
        FailingDirectory* owner_;
        std::unique_ptr<DirectorySession> real_;
    };

    bool Fails(DirectoryCall call)
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        Count& count = counts_[call];
        count.calls++;
        return count.calls >= count.first && count.calls <= count.last;
    }

    std::mutex mutex_;
    std::map<DirectoryCall, Count> counts_;
    ModifyResult result_ = ModifyResult::kUnreachable;
};

}  // namespace dl::testing
