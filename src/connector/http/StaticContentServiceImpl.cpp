#include "connector/http/StaticContentServiceImpl.h"

#include <stdexcept>

#include "connector/common/Log.h"
#include "connector/http/HttpText.h"
#include "connector/http/content/RootFolder.h"
#include "platform/fl/filesystem.h"
#include "platform/fl/i18n.h"

namespace connector::http {

using content::Coding;
using content::FoundContent;

namespace {

constexpr const char* kRootsKey = "http.contentRoots";
constexpr const char* kIndexPage = "index.html";
constexpr std::size_t kMaxRoots = 1'000;
/// Copying tools do not keep the order in which files were made.
constexpr std::int64_t kSiblingGraceSeconds = 2;

/// "" or "/a/b" as decoded paths have it.
bool isPrefix(std::string_view text)
{
    if (text.empty())
        return true;
    if (text.front() != '/' || !fl::i18n::isValidUtf8(text))
        return false;
    for (;;) {
        text.remove_prefix(1);
        const auto slash = text.find('/');
        const std::string_view segment = text.substr(0, slash);
        if (segment.empty() || segment == "." || segment == ".." || segment.find('\\') != std::string_view::npos ||
            segment.find('\t') != std::string_view::npos || !isFieldValue(segment))
            return false;
        if (slash == std::string_view::npos)
            return true;
        text.remove_prefix(slash);
    }
}

std::string bytesOf(const std::wstring& folder) { return fl::filesystem::toNative(folder).string(); }

void check(const StaticContentService::Root& root)
{
    if (!isPrefix(root.prefix))
        throw std::invalid_argument("Not the prefix of a content root: \"" + printable(root.prefix) + "\"");
    const bool broken = root.folder.find(L'\0') != std::wstring::npos;
    if (root.folder.empty() || broken)
        throw std::invalid_argument(
            "Content root \"" + root.prefix + "\" has " +
            (broken ? "a folder with NUL in it: \"" + printable(bytesOf(root.folder)) + "\"" : "no folder: \"\""));
}

bool isRelative(const std::wstring& folder) noexcept { return !folder.empty() && folder.front() != L'/'; }

std::string relativeText(const StaticContentService::Root& root)
{
    return "The folder of content root \"" + printable(root.prefix) + "\" is not absolute: \"" + bytesOf(root.folder) +
           "\"";
}

void warn(const std::string& text) { common::log("connector.http", common::LogLevel::warning, text); }

/// Replaces what was found by its sibling, if there is one.
bool takeSibling(int folder, std::string& name, Coding coding, FoundContent& found)
{
    const std::size_t length = name.size();
    name += coding == Coding::brotli ? ".br" : ".gz";
    auto sibling = content::openBeneath(folder, name);
    name.resize(length);
    if (!sibling || !sibling->isRegular() ||
        sibling->modifiedSeconds + kSiblingGraceSeconds < found.file.modifiedSeconds)
        return false;
    found.file = std::move(*sibling);
    found.coding = coding;
    return true;
}

/// `rest` is what follows the root's prefix: "" or "/…".
FoundContent findBeneath(int folder, std::string_view rest, content::Codings accepted)
{
    FoundContent found;
    if (rest.empty()) {
        found.kind = FoundContent::Kind::folder;
        return found;
    }
    std::string name;
    name.reserve(rest.size() + 16);
    name = rest.substr(1);
    const bool asFolder = rest.back() == '/';
    if (asFolder)
        name += kIndexPage;
    auto opened = content::openBeneath(folder, name);
    if (!opened)
        return found;
    if (opened->isFolder() && !asFolder)
        found.kind = FoundContent::Kind::folder;
    if (!opened->isRegular())
        return found;

    found.kind = FoundContent::Kind::file;
    found.file = std::move(*opened);
    found.type = &content::contentTypeOf(name);
    if (found.type->compressible && !(accepted.brotli && takeSibling(folder, name, Coding::brotli, found)) &&
        accepted.gzip)
        takeSibling(folder, name, Coding::gzip, found);
    return found;
}

} // namespace

struct StaticContentServiceImpl::Entry
{
    std::wstring path;
    bool userFiles = false;
    std::shared_ptr<content::RootFolder> folder;
};

struct StaticContentServiceImpl::Table
{
    std::map<std::string, Entry, std::greater<>> roots;
    std::size_t longest = 0; ///< prefix

    /// Null when no root covers the path; otherwise `path` loses the prefix.
    const Entry* match(std::string_view& path) const
    {
        // From the longest candidate to the shortest, each cut at a slash.
        std::string_view candidate = path;
        if (candidate.size() > longest)
            candidate = candidate.substr(0, candidate.rfind('/', longest));
        for (;;) {
            if (const auto found = roots.find(candidate); found != roots.end()) {
                path.remove_prefix(candidate.size());
                return &found->second;
            }
            if (candidate.empty())
                return nullptr;
            candidate = candidate.substr(0, candidate.rfind('/'));
        }
    }
};

StaticContentServiceImpl::StaticContentServiceImpl(std::shared_ptr<configuration::Configuration> configuration,
                                                   Roots roots, Flags flags, bool flagDefault)
    : table_(std::make_shared<const Table>())
{
    for (auto& [prefix, folder] : roots) {
        const auto flag = flags.find(prefix);
        const Root root{prefix, std::move(folder), flag == flags.end() ? flagDefault : flag->second};
        insert(root);
        if (isRelative(root.folder))
            warn(relativeText(root) + "; it has no files");
    }
    for (const auto& entry : configuration->getList(kRootsKey))
        addConfigured(entry);
}

StaticContentServiceImpl::~StaticContentServiceImpl() = default;

void StaticContentServiceImpl::addConfigured(const std::string& entry)
{
    try {
        const auto equals = entry.find('=');
        if (equals == std::string::npos)
            throw std::invalid_argument("Not \"prefix=folder\": \"" + printable(entry) + "\"");
        addRoot({entry.substr(0, equals), fl::filesystem::fromNative(entry.substr(equals + 1)), true});
    } catch (const std::exception& error) {
        warn(std::string(kRootsKey) + ": " + error.what());
    }
}

void StaticContentServiceImpl::addRoot(const Root& root)
{
    if (isRelative(root.folder))
        throw std::invalid_argument(relativeText(root));
    insert(root);
}

void StaticContentServiceImpl::insert(const Root& root)
{
    check(root);
    std::lock_guard lock(changes_);
    Table changed = *table();
    if (changed.roots.size() >= kMaxRoots && !changed.roots.contains(root.prefix))
        throw std::length_error("There are " + std::to_string(kMaxRoots) + " content roots already; no room for \"" +
                                root.prefix + "\"");
    changed.roots[root.prefix] =
        Entry{root.folder, root.userFiles, std::make_shared<content::RootFolder>(bytesOf(root.folder))};
    replaceTable(std::move(changed));
}

void StaticContentServiceImpl::removeRoot(const std::string& prefix)
{
    std::lock_guard lock(changes_);
    Table changed = *table();
    if (changed.roots.erase(prefix) == 0)
        throw std::invalid_argument("There is no content root \"" + printable(prefix) + "\".");
    replaceTable(std::move(changed));
}

std::vector<StaticContentService::Root> StaticContentServiceImpl::listRoots()
{
    std::vector<Root> roots;
    for (const auto& [prefix, entry] : table()->roots)
        roots.push_back({prefix, entry.path, entry.userFiles});
    return roots;
}

FoundContent StaticContentServiceImpl::find(std::string_view path, content::Codings accepted)
{
    if (path.empty() || path.front() != '/')
        return {};
    const auto current = table();
    const Entry* entry = current->match(path);
    if (!entry)
        return {};
    FoundContent found;
    if (const auto folder = entry->folder->descriptor())
        found = findBeneath(folder->number(), path, accepted);
    found.userFiles = entry->userFiles;
    return found;
}

std::shared_ptr<const StaticContentServiceImpl::Table> StaticContentServiceImpl::table() const
{
    std::lock_guard lock(mutex_);
    return table_;
}

void StaticContentServiceImpl::replaceTable(Table table)
{
    table.longest = 0;
    for (const auto& [prefix, entry] : table.roots)
        table.longest = std::max(table.longest, prefix.size());
    std::shared_ptr<const Table> replacement = std::make_shared<const Table>(std::move(table));
    std::lock_guard lock(mutex_);
    table_.swap(replacement);
}

} // namespace connector::http
