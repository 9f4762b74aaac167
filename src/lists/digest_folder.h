// A list's digest folder: a copy of each posting since the last digest, and the topics, their
// subjects, one numbered line for each.
//
// Copies are named after the message that they were made of, "%08X.msg", so that handling a message
// again replaces its copy. The topics have one line for each copy; where they do not, after a
// crash, RebuildTopics makes them so. Nothing is locked: the service alone writes here, on one
// thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace dl
{

class DigestFolder
{
 public:
    // "<data path>/<folder>/digest", `folder` being the list's; below the working directory when no
    // data path is configured.
    explicit DigestFolder(const std::string& folder);

    [[nodiscard]] const std::string& Path() const { return path_; }
    [[nodiscard]] std::string PathOf(const std::string& name) const { return path_ + "/" + name; }
    [[nodiscard]] std::string Topics() const { return PathOf("subject.txt"); }
    // Names of the copies, in their order, which is that in which the messages came. Empty also
    // when the folder cannot be read.
    [[nodiscard]] std::vector<std::string> Postings() const;

 private:
    std::string path_;
};

// The name of the copy of message `id`.
[[nodiscard]] std::string PostingName(unsigned long id);
// The identifier in such a name; none for any other name.
[[nodiscard]] std::optional<unsigned long> PostingId(const std::string& name);

// One line of topics. `subject` is the text of a Subject header, line end included.
[[nodiscard]] std::string TopicLine(int number, const std::optional<std::string>& subject);
// The number of lines in the topics, 0 when there are none; -1 when they cannot be read.
[[nodiscard]] int CountTopics(const DigestFolder& folder);
// Appends a line for each of `subjects`, durably; false with errno.
[[nodiscard]] bool AddTopics(const DigestFolder& folder,
                             const std::vector<std::optional<std::string>>& subjects);
// The topics of these copies, from their Subject headers.
[[nodiscard]] std::string TopicsOf(const DigestFolder& folder,
                                   const std::vector<std::string>& names);
// Writes the topics again, from the copies that are there; false with errno. Without any, they go.
[[nodiscard]] bool RebuildTopics(const DigestFolder& folder);

}  // namespace dl
