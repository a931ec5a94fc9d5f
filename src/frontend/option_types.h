// Value types of command-line options: names that are checked while they are read, and the lists that carry mail data
// on the command line. Boost.Program_options finds the extraction operators and validators by argument type.
#pragma once

#include <boost/any.hpp>
#include <iosfwd>
#include <map>
#include <string>
#include <vector>

/// A domain name in ASCII (IDNA) form, lower case.
class DomainNameTOpt {
public:
    const std::string& str() const noexcept { return name_; }

private:
    friend std::istream& operator>>(std::istream& stream, DomainNameTOpt& domain);
    std::string name_;
};

/// The local part of an address, lower case. Never converted to IDNA form.
class MailNameTOpt {
public:
    const std::string& str() const noexcept { return name_; }

private:
    friend std::istream& operator>>(std::istream& stream, MailNameTOpt& mailname);
    std::string name_;
};

/// Each reads one word. Throws std::runtime_error for a malformed name, IdnaError for one that cannot be converted:
/// neither is an error of Boost's, so both end the command as a fatal error, without its usage.
std::istream& operator>>(std::istream& stream, DomainNameTOpt& domain);
std::istream& operator>>(std::istream& stream, MailNameTOpt& mailname);

/// Domain aliases in the order they were given.
class MailDbDomainAliasesList {
public:
    MailDbDomainAliasesList() = default;
    explicit MailDbDomainAliasesList(std::vector<std::string> names) : names_(std::move(names)) {}

    /// Appends the name unless it is in the list already.
    void add(const std::string& name);
    const std::vector<std::string>& names() const noexcept { return names_; }

private:
    std::vector<std::string> names_;
};

/// Mailnames, in byte order, each with its aliases.
class MailDbMailAddressesList {
public:
    using Map = std::map<std::string, std::vector<std::string>>;

    /// Adds a mailname without aliases; one that is there keeps its own.
    void add(const std::string& mailname) { mails_.try_emplace(mailname); }
    /// Adds an alias, unless that mailname has it already, and the mailname with it when needed.
    void add(const std::string& mailname, const std::string& alias);
    /// Gives the mailname exactly these aliases.
    void set(const std::string& mailname, std::vector<std::string> aliases);
    const Map& mails() const noexcept { return mails_; }

private:
    Map mails_;
};

/// Read the syntaxes "alias1,alias2,..." and "mail_name1,alias11,...;mail_name2,...". Blanks and tabs separate as
/// commas do, and every separator counts: two in a row have an empty name between them. Names are not checked here.
/// Throw Boost's errors for an option given twice.
void validate(boost::any& value, const std::vector<std::string>& texts, MailDbDomainAliasesList* tag, int);
void validate(boost::any& value, const std::vector<std::string>& texts, MailDbMailAddressesList* tag, int);
