// Boost.Program_options without its guessing of abbreviated names; mandatory options are looked for after --help.
#include "frontend/program_options_helper.h"

#include <boost/program_options/parsers.hpp>
#include <iostream>

#include "frontend/option_types.h"
#include "frontend/output.h"
#include "process/error_stream.h"

namespace po = boost::program_options;

namespace {

/// Boost's default style without the guessing of abbreviated names.
constexpr int kCommandLineStyle =
    po::command_line_style::default_style & ~static_cast<int>(po::command_line_style::allow_guessing);
static_assert(kCommandLineStyle == 503);

}  // namespace

ProgramOptionsHelper::ProgramOptionsHelper(const std::string& description, const std::string& usage)
    : options_("Allowed options to " + description), description_(description), usage_(usage) {
}

std::string ProgramOptionsHelper::OptionAppender::describe(const char* name, const char* description, bool mandatory) {
    if (!mandatory) {
        return description;
    }
    helper_.mandatory_.emplace_front(name);
    return std::string(description) + " (mandatory)";
}

ProgramOptionsHelper::OptionAppender& ProgramOptionsHelper::OptionAppender::operator()(
    const char* name, const po::value_semantic* semantic, const char* description, bool mandatory) {
    helper_.options_.add_options()(name, semantic, describe(name, description, mandatory).c_str());
    return *this;
}

ProgramOptionsHelper::OptionAppender& ProgramOptionsHelper::OptionAppender::operator()(const char* name,
                                                                                       const char* description,
                                                                                       bool mandatory) {
    helper_.options_.add_options()(name, describe(name, description, mandatory).c_str());
    return *this;
}

ProgramOptionsHelper::OptionAppender& ProgramOptionsHelper::OptionAppender::operator()(MailDbOptions /*group*/,
                                                                                       bool mandatory) {
    (*this)("domain-aliases", po::value<MailDbDomainAliasesList>(), "list of domain aliases", mandatory);
    return (*this)("mail-addresses", po::value<MailDbMailAddressesList>(),
                   "list of mailnames together with their aliases", mandatory);
}

void ProgramOptionsHelper::parse(int argc, char** argv) {
    options_.add_options()("help,h", "displays this help message");
    po::store(po::command_line_parser(argc, argv).options(options_).style(kCommandLineStyle).run(), variables_);
    po::notify(variables_);
    if (has("help")) {
        usage(kExitSuccess, std::cout);
    }
    for (const std::string& name : mandatory_) {
        if (!has(name.c_str())) {
            throw MissingMandatoryOption(name);
        }
    }
}

void ProgramOptionsHelper::usage(int status, std::ostream& stream) {
    stream << description_ << '\n' << "Usage: " << usage_ << '\n' << options_ << '\n';
    exitAfterOutput(status, stream);
}

void standardOptionsParse(ProgramOptionsHelper& helper, int argc, char** argv) {
    try {
        helper.parse(argc, argv);
    } catch (const po::error& error) {
        kavro::uerr << error.what() << std::endl;
        helper.usage(kExitFailure, std::cout);
    }
}
