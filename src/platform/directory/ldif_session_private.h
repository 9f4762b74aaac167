// One session with an LDIF file, and what its two source files share.
#pragma once

#include <sys/stat.h>

#include <cstdio>
#include <functional>
#include <memory>

#include "platform/directory/directory_private.h"
#include "platform/directory/filter.h"
#include "platform/directory/ldif_change.h"
#include "platform/directory/ldif_file.h"

namespace dl
{

struct FileCloser {
    void operator()(std::FILE* file) const { (void)std::fclose(file); }  // opened for reading
};
using File = std::unique_ptr<std::FILE, FileCloser>;

class LdifSession final : public DirectorySession
{
 public:
    explicit LdifSession(std::string path) : path_(std::move(path)) {}

    bool Connect(const std::string& host, int port) override;
    // The file's mode is what guards it.
    bool Bind(const std::string&, const std::string&) override { return connected_; }
    bool Search(const SearchQuery& query, NamePool* names, const EntrySink& take) override;
    [[nodiscard]] DirectoryMark Mark() const override { return mark_; }
    ModifyResult Modify(const std::string& entry,
                        const std::vector<AttributeChange>& changes) override;
    ModifyResult Add(const std::string& entry,
                     const std::vector<SearchAttribute>& attributes) override;
    ModifyResult Delete(const std::string& entry) override;
    void Unbind() override { connected_ = false; }

 private:
    // What is known of an entry after the whole file was read.
    struct Found {
        std::unique_ptr<LdifRecord> record;  // null: no such entry
        bool has_children = false;
        LdifEnd end;
    };
    using Planner = std::function<LdifChange(const Found&)>;
    struct Question {
        const SearchQuery& query;
        const Filter& filter;
        const EntryName& base;
        NamePool* names;

        [[nodiscard]] bool Matches(const LdifRecord& record) const;
        [[nodiscard]] bool Enough(std::size_t taken) const
        {
            return query.limit != 0 && taken >= query.limit;
        }
        [[nodiscard]] SearchEntry Take(LdifRecord* record) const;
    };

    File Open(struct stat* state);
    bool IsSound(std::FILE* file, const struct stat& state);
    bool ReadPlaces(std::FILE* file, const struct stat& state, const std::string& base,
                    const Question& question, const EntrySink& take);
    bool ReadAll(std::FILE* file, const std::string& base, const Question& question,
                 const EntrySink& take);
    bool Look(std::FILE* file, const EntryName& name, Found* found);
    ModifyResult Change(const std::string& entry, const EntryName& name, const Planner& plan);
    bool ChangeOnce(const std::string& path, const std::string& entry, const EntryName& name,
                    const Planner& plan, ModifyResult* result);
    void LogBroken(const LdifReader& reader)
    {
        LogDirectory(1, "%s, %s", path_.c_str(), reader.Error().c_str());
    }

    const std::string path_;
    DirectorySettings settings_;
    DirectoryMark mark_;
    bool connected_ = false;
};

}  // namespace dl
