// Where a command's session mail data comes from: the lists on its command line, or the document on standard input.
#pragma once

#include <cstdint>
#include <string>

#include "frontend/option_types.h"
#include "frontend/program_options_helper.h"

/// The mail data that the command line gives. It must outlive the session data that is filled from it.
class MailDbOptionsProcessor {
public:
    /// Takes "domain-aliases", "mail-addresses", "default-domain-quota" and "wait-stdin" from the parsed options.
    explicit MailDbOptionsProcessor(const ProgramOptionsHelper& helper);
    MailDbOptionsProcessor(const MailDbOptionsProcessor&) = delete;
    MailDbOptionsProcessor& operator=(const MailDbOptionsProcessor&) = delete;

    // The names that the command itself is about belong to the data, too. Each returns the processor.
    MailDbOptionsProcessor& withDomain(const std::string& name);
    MailDbOptionsProcessor& withDomainAlias(const std::string& alias);
    MailDbOptionsProcessor& withMailname(const std::string& name);
    /// Adds an alias of the mailname given before; throws std::runtime_error when there is none.
    MailDbOptionsProcessor& withMailAlias(const std::string& alias);

    /// The command line gives mail data for a domain. What the command itself is about does not count as such.
    bool isEnough() const noexcept { return !domain_.empty() && hasCommandLineData_; }
    bool waitForStdin() const noexcept { return waitForStdin_; }

    const std::string& domain() const noexcept { return domain_; }
    const MailDbDomainAliasesList& domainAliases() const noexcept { return domainAliases_; }
    const MailDbMailAddressesList& mailAddresses() const noexcept { return mailAddresses_; }
    std::int64_t defaultDomainQuota() const noexcept { return defaultDomainQuota_; }  ///< bytes; -1: not set

private:
    std::string domain_;
    MailDbDomainAliasesList domainAliases_;
    std::string mailname_;
    MailDbMailAddressesList mailAddresses_;
    std::int64_t defaultDomainQuota_ = -1;
    bool waitForStdin_ = false;
    bool hasCommandLineData_ = false;
};

/// The session mail data of one command, loaded by the constructor and released by the destructor.
class MailDbStdinReader {
public:
    /// Reads standard input when the options ask for it, else loads nothing unless `required`, else takes the command
    /// line's data or, without any, standard input. It prompts when no input is ready. Throws std::runtime_error.
    MailDbStdinReader(const MailDbOptionsProcessor& processor, bool required);
    MailDbStdinReader(const MailDbStdinReader&) = delete;
    MailDbStdinReader& operator=(const MailDbStdinReader&) = delete;
    ~MailDbStdinReader();

private:
    const MailDbOptionsProcessor& processor_;
};

/// Fills the session data from the command line. Its strings are the processor's. An empty name in the lists names
/// nothing and is left out; without a mailname its aliases are left out, too. Throws std::runtime_error for a name that
/// no record can hold, or when there is no session object to be had, std::bad_alloc when it cannot grow.
void fillSessionMailDbInfo(const MailDbOptionsProcessor& processor);

/// Options whose values belong to the mail data, besides "domain-name". Null: the command has no such option.
struct MailDataNames {
    const char* domainAlias = nullptr;
    const char* mailname = nullptr;
    const char* mailAlias = nullptr;  ///< needs a mailname
};

/// Loads the mail data that a command needs from its parsed options or from standard input; holds it until the backend
/// is done. Once it is there, signals that would end the program wait: the stores are changed next. Throws what
/// MailDbStdinReader throws.
class CommandMailData {
public:
    explicit CommandMailData(const ProgramOptionsHelper& helper, const MailDataNames& names = {}, bool required = true);

private:
    MailDbOptionsProcessor processor_;
    MailDbStdinReader reader_;  ///< its data points into the processor
};
