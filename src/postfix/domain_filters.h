// Element and value filters that know what belongs to a mail domain. Comparison is exact, in bytes.
#pragma once

#include <string>

namespace kavro::mail::postfix {

/// The item is the domain, or an address in it; with `subdomains` also whatever ends in "." and the domain.
inline bool liesInDomain(const std::string& item, const std::string& domain, bool subdomains) {
    if (item.size() < domain.size()) {
        return false;
    }
    const std::size_t start = item.size() - domain.size();
    // The byte in front first: it alone settles nearly every item of a large table.
    if (start != 0 && item[start - 1] != '@' && !(subdomains && item[start - 1] == '.')) {
        return false;
    }
    return item.compare(start, domain.size(), domain) == 0;
}

/// Drops what lies in the domain.
class NotInDomainFilter {
public:
    NotInDomainFilter(const std::string& domain, bool subdomains) : domain_(domain), subdomains_(subdomains) {}

    bool operator()(const std::string& item) const { return !liesInDomain(item, domain_, subdomains_); }

private:
    std::string domain_;
    bool subdomains_;
};

/// Moves what lies in the old domain to the new one. Keeps everything. Both strings must outlive it.
class ReplaceDomainPart {
public:
    ReplaceDomainPart(const std::string& oldDomain, const std::string& newDomain, bool subdomains)
        : old_(&oldDomain), new_(&newDomain), subdomains_(subdomains) {}

    bool operator()(std::string& item) const {
        if (liesInDomain(item, *old_, subdomains_)) {
            item.replace(item.size() - old_->size(), old_->size(), *new_);
        }
        return true;
    }

private:
    const std::string* old_;
    const std::string* new_;
    bool subdomains_;
};

/// Replaces a path's prefix, whatever follows it. Keeps everything. Both strings must outlive it.
class ReplaceDomainPath {
public:
    ReplaceDomainPath(const std::string& oldPrefix, const std::string& newPrefix)
        : old_(&oldPrefix), new_(&newPrefix) {}

    bool operator()(std::string& path) const {
        // Kept: no look at what follows the prefix, so the path of a longer name that begins alike changes, too.
        if (path.compare(0, old_->size(), *old_) == 0) {
            path.replace(0, old_->size(), *new_);
        }
        return true;
    }

private:
    const std::string* old_;
    const std::string* new_;
};

}  // namespace kavro::mail::postfix
