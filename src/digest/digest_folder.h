// A list's digest folder: the postings since the last digest, and their topics.
#pragma once

#include <string>
#include <vector>

namespace dl
{

class DigestFolder
{
 public:
    // "<data path>/<list>/digest"; below the working directory when no data path is configured.
    explicit DigestFolder(const std::string& list);

    // Full paths of the postings, in the order of their names, which is the order in which they
    // came. Empty also when the folder cannot be read.
    [[nodiscard]] const std::vector<std::string>& Postings() const { return postings_; }
    [[nodiscard]] std::string Topics() const { return path_ + "/subject.txt"; }
    // Removes postings and topics; what cannot be removed is logged.
    void Empty() const;

 private:
    std::string path_;
    std::vector<std::string> postings_;
};

}  // namespace dl
