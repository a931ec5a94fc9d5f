// Session documents, any number one after another, in tables beside the node's own (see node_state.h), and what a node
// holds that is as they say:
//
//   doc_domain(domain, quota)            quota in bytes, -1: none
//   doc_alias(alias, domain)
//   doc_mail(domain, name, quota)        quota: the mailname's own, else the domain's
//   doc_mail_alias(domain, alias, name)
//   doc_list(domain, name)
//
// Views on them: doc_place(place, domain), the domain and its aliases; doc_address(domain, address, name), each
// mailname and mail alias with the mailname it leads to.
#pragma once

#include <string>

#include "mxrepair/node_state.h"

namespace mxrepair {

/// Documents are read one by one, so that memory holds no more than one of them.
class Documents {
public:
    explicit Documents(NodeState& node);

    /// Reads to the end. Throws std::runtime_error for what is no document (the reason is logged), for a domain that
    /// has two of them, and for a name that is a domain in one and a domain alias in another.
    void read(int fd);

private:
    void load(const std::string& text);

    NodeState& node_;
    unsigned long count_ = 0;
};

/// What a node must hold by its documents and what it holds instead. Made once from both; tables that questions are put
/// to:
///
///   expected(map, key, value, domain)    records
///   missing(map, key, value, domain)     those that are not there, or say something else
///   surplus(map, key, domain)            records that a removal or renaming left
///   gone_alias(alias, domain)            domain aliases that the document does not name
///   surplus_user(name, domain, owner)    owner: the domain whose document tells
///   missing_user(name, domain, mailname, owner)  users that the mailname's own shows to be missing
///   surplus_handler(address, owner)
void compareWithDocuments(NodeState& node);

}  // namespace mxrepair
