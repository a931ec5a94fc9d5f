// Domains put together from all stores, and the two ways of writing them.
#include "mxrepair/listing.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <iomanip>
#include <iostream>
#include <optional>
#include <vector>

#include "mxrepair/json_writer.h"
#include "mxrepair/node_state.h"
#include "storage/mail_tree.h"
#include "storage/maildirsize.h"
#include "util/names.h"

namespace mxrepair {

namespace {

using kavro::SqliteStatement;

/// What happens to mail for names that are not there.
struct UnknownRecipients {
    std::string action = "reject";
    std::string target;  ///< of a catch-all
};

struct Alias {
    std::string name;
    UnknownRecipients unknown;
};

struct Mailname {
    std::string name;
    std::vector<std::string> aliases;  ///< its mail aliases
    std::string login = "none";
    std::optional<std::int64_t> quota;  ///< bytes
    std::optional<std::int64_t> used;   ///< bytes; none: there is no mailbox
    std::int64_t messages = 0;
};

struct Domain {
    std::string name;
    bool enabled = false;
    UnknownRecipients unknown;
    std::vector<Alias> aliases;
    std::vector<Mailname> mailnames;
    std::vector<std::string> lists;
};

std::string text(const SqliteStatement& row, int column) {
    const char* value = row.text(column);
    return value == nullptr ? "" : value;
}

/// First columns of a query.
std::vector<std::string> column(NodeState& node, const std::string& sql,
                                std::initializer_list<std::string_view> parameters) {
    std::vector<std::string> result;
    node.query(sql, parameters, [&result](const SqliteStatement& row) { result.push_back(text(row, 0)); });
    return result;
}

UnknownRecipients unknownRecipientsOf(NodeState& node, const std::string& domain) {
    const std::vector<std::string> found =
        column(node, "SELECT value FROM record WHERE map='virtual' AND key='@' || ?", {domain});
    if (found.empty()) {
        return {};
    }
    if (found.front() == "_kavro_bounce_" + domain + "@localhost.localdomain") {
        return {"bounce", ""};
    }
    return {"catch-all", found.front()};
}

std::string loginOf(NodeState& node, const std::string& name, const std::string& domain) {
    std::string login = "none";
    node.query(
        "SELECT u.off OR d.off FROM user u JOIN auth_domain d ON d.domain = u.domain"
        " WHERE u.name=? AND u.domain=? AND u.stored <> 'none'",
        {name, domain}, [&login](const SqliteStatement& row) { login = row.number(0) != 0 ? "disabled" : "enabled"; });
    return login;
}

void measure(Mailname& mailname, const std::string& domain) {
    const std::string maildir = kavro::mail::mailboxPath(domain, mailname.name) + "/Maildir";
    std::uint64_t size = 0;
    std::uint64_t count = 0;
    long sizeLimit = LONG_MAX;
    long countLimit = LONG_MAX;
    if (get_maildirpp_usage_and_limits(maildir.c_str(), 0, &size, &count, &sizeLimit, &countLimit) != 1) {
        return;
    }
    mailname.used = static_cast<std::int64_t>(size);
    mailname.messages = static_cast<std::int64_t>(count);
    if (sizeLimit > 0 && sizeLimit != LONG_MAX) {
        mailname.quota = sizeLimit;
    }
}

Domain readDomain(NodeState& node, const std::string& name, bool enabled) {
    Domain domain{name, enabled, unknownRecipientsOf(node, name), {}, {}, {}};
    for (const std::string& alias :
         column(node, "SELECT alias FROM node_alias WHERE domain=? ORDER BY alias", {name})) {
        domain.aliases.push_back({alias, unknownRecipientsOf(node, alias)});
    }
    for (const std::string& mailname : column(node, "SELECT name FROM mailname WHERE domain=? ORDER BY name", {name})) {
        Mailname one{mailname, {}, loginOf(node, mailname, name), {}, {}, 0};
        one.aliases = column(node,
                             "SELECT name FROM record WHERE map='virtual' AND domain=?1 AND value=?2 || '@' || ?1"
                             " AND name <> '' AND name <> ?2 ORDER BY name",
                             {name, mailname});
        measure(one, name);
        domain.mailnames.push_back(std::move(one));
    }
    // A list is known by its records under the domain's aliases alone.
    domain.lists = column(node,
                          "SELECT DISTINCT r.name FROM record r JOIN node_alias a ON a.alias = r.domain"
                          " WHERE r.map='virtual' AND a.domain=?1 AND r.value = r.name || '@' || ?1 AND NOT EXISTS"
                          " (SELECT 1 FROM record m WHERE m.key = r.name || '@' || ?1) ORDER BY r.name",
                          {name});
    return domain;
}

void write(JsonWriter& json, const UnknownRecipients& unknown) {
    json.key("unknown_recipients");
    json.beginObject();
    json.member("action", unknown.action);
    if (!unknown.target.empty()) {
        json.member("to", unknown.target);
    }
    json.endObject();
}

void write(JsonWriter& json, const char* name, const std::optional<std::int64_t>& value) {
    json.key(name);
    if (value) {
        json.number(*value);
    } else {
        json.null();
    }
}

void write(JsonWriter& json, const char* name, const std::vector<std::string>& values) {
    json.key(name);
    json.beginArray();
    for (const std::string& value : values) {
        json.text(value);
    }
    json.endArray();
}

void write(JsonWriter& json, const Mailname& mailname) {
    json.beginObject();
    json.member("name", mailname.name);
    write(json, "aliases", mailname.aliases);
    json.member("login", mailname.login);
    write(json, "quota", mailname.quota);
    write(json, "used", mailname.used);
    json.key("messages");
    json.number(mailname.messages);
    json.endObject();
}

void write(JsonWriter& json, const Domain& domain) {
    json.beginObject();
    json.member("name", domain.name);
    json.key("enabled");
    json.boolean(domain.enabled);
    write(json, domain.unknown);
    json.key("aliases");
    json.beginArray();
    for (const Alias& alias : domain.aliases) {
        json.beginObject();
        json.member("name", alias.name);
        write(json, alias.unknown);
        json.endObject();
    }
    json.endArray();
    json.key("mailnames");
    json.beginArray();
    for (const Mailname& mailname : domain.mailnames) {
        write(json, mailname);
    }
    json.endArray();
    write(json, "lists", domain.lists);
    json.endObject();
}

/// Rows of words, written with every column as wide as its widest word.
class Columns {
public:
    void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
    void writeTo(std::ostream& out) const {
        std::vector<std::size_t> widths;
        for (const auto& row : rows_) {
            widths.resize(std::max(widths.size(), row.size()));
            for (std::size_t i = 0; i != row.size(); ++i) {
                widths[i] = std::max(widths[i], row[i].size());
            }
        }
        for (const auto& row : rows_) {
            std::string line;
            for (std::size_t i = 0; i != row.size(); ++i) {
                line += row[i] + std::string(widths[i] - row[i].size() + 2, ' ');
            }
            out << line.substr(0, line.find_last_not_of(' ') + 1) << '\n';
        }
    }

private:
    std::vector<std::vector<std::string>> rows_;
};

std::string told(const UnknownRecipients& unknown) {
    return "unknown names: " + unknown.action + (unknown.target.empty() ? "" : " " + unknown.target);
}

std::string told(const std::optional<std::int64_t>& value, const char* none) {
    return value ? std::to_string(*value) : none;
}

void write(Columns& columns, const Domain& domain) {
    columns.add({"domain", domain.name, domain.enabled ? "enabled" : "disabled", "", "", told(domain.unknown)});
    for (const Alias& alias : domain.aliases) {
        columns.add({"domain alias", alias.name, "", "", "", "of " + domain.name + ", " + told(alias.unknown)});
    }
    for (const Mailname& mailname : domain.mailnames) {
        columns.add({"mailname", mailname.name + '@' + domain.name, "login " + mailname.login,
                     told(mailname.quota, "no quota"),
                     mailname.used ? "used " + std::to_string(*mailname.used) : "no mailbox",
                     mailname.used ? std::to_string(mailname.messages) + " messages" : ""});
        for (const std::string& alias : mailname.aliases) {
            columns.add(
                {"mail alias", alias + '@' + domain.name, "", "", "", "of " + mailname.name + '@' + domain.name});
        }
    }
    for (const std::string& list : domain.lists) {
        columns.add({"mailing list", list + '@' + domain.name});
    }
}

/// Writes the domains whose names are given.
void writeDomains(NodeState& node, const std::vector<std::string>& names, bool asJson) {
    JsonWriter json(std::cout);
    if (asJson) {
        json.beginArray();
    }
    Columns columns;
    for (const std::string& name : names) {
        const bool enabled = node.exists("SELECT 1 FROM node_domain WHERE domain=? AND enabled", {name});
        const Domain domain = readDomain(node, name, enabled);
        asJson ? write(json, domain) : write(columns, domain);
    }
    if (asJson) {
        json.endArray();
        json.finish();
    } else {
        columns.writeTo(std::cout);
    }
}

/// What an address is, and where its mail goes.
struct Address {
    std::string name;
    std::string kind;
    std::vector<std::string> leadsTo;
    std::string login;
};

Address readAddress(NodeState& node, const std::string& name, const std::string& domain) {
    const std::string address = name + '@' + domain;
    Address result{address, "", {}, loginOf(node, name, domain)};
    const std::vector<std::string> records =
        column(node, "SELECT value FROM record WHERE map='virtual' AND key=?", {address});
    if (node.exists("SELECT 1 FROM mailname WHERE name=? AND domain=?", {name, domain})) {
        result.kind = "mailname";
    } else if (records.empty()) {
        return result;
    } else if (node.exists("SELECT 1 FROM standard WHERE name=?", {name}) &&
               records.front() == name + "@localhost.localdomain") {
        result.kind = "standard address";
    } else if (node.exists("SELECT 1 FROM record WHERE map='vmailbox' AND key=?", {records.front()})) {
        result.kind = "alias";
    } else {
        result.kind = "record";
    }
    result.leadsTo = records;
    return result;
}

void write(const Address& address, bool asJson) {
    if (asJson) {
        JsonWriter json(std::cout);
        json.beginObject();
        json.member("address", address.name);
        json.member("kind", address.kind);
        write(json, "leads_to", address.leadsTo);
        json.member("login", address.login);
        json.endObject();
        json.finish();
        return;
    }
    Columns columns;
    columns.add({address.kind, address.name, "login " + address.login,
                 address.leadsTo.empty() ? "" : "to " + address.leadsTo.front()});
    columns.writeTo(std::cout);
}

}  // namespace

int runList(const Options& options) {
    NodeState node;
    node.loadAll();
    node.settle();
    writeDomains(node,
                 options.domain.empty()
                     ? column(node, "SELECT domain FROM node_domain ORDER BY domain", {})
                     : column(node, "SELECT domain FROM node_domain WHERE domain=?", {options.domain}),
                 options.json);
    return kSuccess;
}

int runShow(const Options& options) {
    NodeState node;
    node.loadAll();
    node.settle();
    const std::string::size_type at = options.argument.rfind('@');
    const std::string domain = asStored(options.argument.substr(at == std::string::npos ? 0 : at + 1));
    if (at != std::string::npos) {
        std::string name = options.argument.substr(0, at);
        ascii_lower(name.data());
        const Address address = readAddress(node, name, domain);
        if (!address.kind.empty()) {
            write(address, options.json);
            return kSuccess;
        }
    } else {
        std::vector<std::string> names = column(node, "SELECT domain FROM node_domain WHERE domain=?", {domain});
        if (names.empty()) {
            names = column(node, "SELECT domain FROM node_alias WHERE alias=? AND domain IS NOT NULL", {domain});
        }
        if (!names.empty()) {
            writeDomains(node, names, options.json);
            return kSuccess;
        }
    }
    std::cerr << "mxrepair: this node does not know " << options.argument << std::endl;
    return kFailure;
}

}  // namespace mxrepair
