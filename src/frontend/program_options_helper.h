// The options of one command: declaration, parsing, usage. A small wrapper around Boost.Program_options that adds
// mandatory options and the texts that every command's help begins with.
#pragma once

#include <boost/program_options/errors.hpp>
#include <boost/program_options/options_description.hpp>
#include <boost/program_options/value_semantic.hpp>
#include <boost/program_options/variables_map.hpp>
#include <forward_list>
#include <iosfwd>
#include <string>

/// A mandatory option is absent. From the parser it ends the command with its usage; thrown later, as a fatal error.
class MissingMandatoryOption : public boost::program_options::error {
public:
    explicit MissingMandatoryOption(const std::string& name)
        : boost::program_options::error("mandatory option \"--" + name + "\" is not specified") {}
};

/// Stands for the options that carry the domain's aliases and mailnames on the command line.
struct MailDbOptions {};

class ProgramOptionsHelper {
public:
    /// Adds options one call after the other. `mandatory` makes the parser insist on the option.
    class OptionAppender {
    public:
        explicit OptionAppender(ProgramOptionsHelper& helper) : helper_(helper) {}

        /// An option with a value. Takes the semantic over.
        OptionAppender& operator()(const char* name, const boost::program_options::value_semantic* semantic,
                                   const char* description, bool mandatory = false);
        /// A switch.
        OptionAppender& operator()(const char* name, const char* description, bool mandatory = false);
        OptionAppender& operator()(MailDbOptions group, bool mandatory = false);

    private:
        /// Notes a mandatory option; returns the description that the help shows.
        std::string describe(const char* name, const char* description, bool mandatory);

        ProgramOptionsHelper& helper_;
    };

    /// `description` says what the command does, `usage` is its synopsis.
    ProgramOptionsHelper(const std::string& description, const std::string& usage);

    OptionAppender addOptions() { return OptionAppender(*this); }
    /// The description itself, for options that are never mandatory.
    boost::program_options::options_description& options() noexcept { return options_; }

    /// Parses the arguments after argv[0]; words that belong to no option are ignored. A call for help ends the
    /// process with status 0. Throws Boost's errors, MissingMandatoryOption, and what reading a name throws.
    void parse(int argc, char** argv);
    /// Prints what the command does, its synopsis and its options; ends the process with `status`.
    [[noreturn]] void usage(int status, std::ostream& stream);

    bool has(const char* name) const { return variables_.count(name) != 0; }
    /// The value of an option that is present.
    template <typename Value>
    const Value& get(const char* name) const {
        return variables_[name].as<Value>();
    }

private:
    boost::program_options::options_description options_;
    boost::program_options::variables_map variables_;
    std::string description_;
    std::forward_list<std::string> mandatory_;  ///< last declared first
    std::string usage_;
};

/// Parses; reports an error of the options on uerr, prints the usage and ends the process with status 1. Malformed
/// names are not such an error: what they throw passes through.
void standardOptionsParse(ProgramOptionsHelper& helper, int argc, char** argv);
