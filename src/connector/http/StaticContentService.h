#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "connector/Export.h"
#include "connector/http/content/FoundContent.h"

namespace connector::http {

/// Folders of files by URL prefix. The longest prefix that covers a path in whole segments has it: "/ui" covers "/ui",
/// "/ui/" and "/ui/x", not "/uix"; "" covers all. A root whose folder does not exist has no files. Nothing outside a
/// root's folder is ever found. Threads: any.
class CONNECTOR_API StaticContentService : public std::enable_shared_from_this<StaticContentService>
{
public:
    struct Root
    {
        std::string prefix;  ///< of decoded paths: "" or "/a/b"
        std::wstring folder; ///< absolute
        /// Its files are not ours: what they show may not run scripts, load from elsewhere or be framed.
        bool userFiles = false;
    };

    virtual ~StaticContentService() = default;

    /// Replaces a root with the same prefix; requests that were there before may still get the old one's files. Throws
    /// std::invalid_argument naming a prefix or folder that cannot be, std::length_error beyond 1,000 roots.
    virtual void addRoot(const Root& root) = 0;
    /// Throws std::invalid_argument naming a prefix that has no root.
    virtual void removeRoot(const std::string& prefix) = 0;
    /// In descending order of the prefixes.
    virtual std::vector<Root> listRoots() = 0;
    /// What a decoded path leads to; the page "index.html" for one that ends with '/'. Instead of a file its
    /// precompressed sibling, when the client takes it: "x.br", else "x.gz", unless it is older than the file. Throws
    /// as content::openBeneath.
    virtual content::FoundContent find(std::string_view path, content::Codings accepted) = 0;
};

} // namespace connector::http
