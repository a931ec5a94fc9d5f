// Modes, arguments, usage and the report of failures.
#include "mxrepair/command_line.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/program_options.hpp>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "mxrepair/backup.h"
#include "mxrepair/check.h"
#include "mxrepair/init.h"
#include "mxrepair/listing.h"
#include "mxrepair/sync.h"
#include "util/idn.h"
#include "util/names.h"

namespace mxrepair {

namespace {

namespace po = boost::program_options;

constexpr const char* kUsage =
    "Usage: mxrepair --init\n"
    "       mxrepair --check [--domain=NAME] [--json] [--wait-stdin]\n"
    "       mxrepair --fix [--domain=NAME] [--json]\n"
    "       mxrepair --fix --finish-rename=OLD:NEW | --undo-rename=OLD:NEW\n"
    "       mxrepair --sync --wait-stdin\n"
    "       mxrepair --list [--domain=NAME] [--json]\n"
    "       mxrepair --show=NAME [--json]\n"
    "       mxrepair --backup=DIR\n"
    "       mxrepair --restore=DIR\n"
    "       mxrepair --help\n"
    "\n"
    "  --init  makes the directories, lookup tables and databases of mxadmin that are missing,\n"
    "          and says what it made. Nothing that exists is changed.\n"
    "  --check tells what is wrong in the stores, one line each, and what --fix would do about it.\n"
    "          Changes nothing. Status 0: nothing found, 1: findings, 2: could not look.\n"
    "  --fix   mends what has one right answer and tells what it leaves. Status 1: something is left.\n"
    "  --sync  makes what the domains of the session documents lack, but passwords, and removes what\n"
    "          they no longer name, but homes.\n"
    "  --list  tells the node's domains with all their names, quotas and logins.\n"
    "  --show  tells what is known of a domain, a domain alias or an address. Status 1: nothing.\n"
    "  --backup   writes tables, databases and keys into a new directory, but no mail.\n"
    "  --restore  puts such a backup in their place, and says what it replaces.\n"
    "  --help  displays this help message\n"
    "\n"
    "  --domain=NAME  only this domain and its aliases\n"
    "  --json         for machines\n"
    "  --wait-stdin   reads session documents, any number one after another, from standard input,\n"
    "                 and compares their domains with them\n"
    "  --finish-rename=OLD:NEW, --undo-rename=OLD:NEW\n"
    "                 does what is left of a mxadmin --rename-domain that was killed, or takes it back;\n"
    "                 with addresses it does what is left of a --rename-mailname\n";

/// A word of the command line that says what is to be done.
struct Mode {
    const char* option;
    bool takesArgument;
    /// Which of the other options it knows.
    bool takesDomain;
    bool takesJson;
    bool takesDocuments;
    bool takesRename;
    int (*run)(const Options& options);
    int failure;  ///< status when it throws
};

int runInit(const Options& /*options*/) {
    makeMissingStores(std::cout);
    return kSuccess;
}

constexpr std::array kModes = {
    Mode{"init", false, false, false, false, false, &runInit, kFailure},
    Mode{"check", false, true, true, true, false, &runCheck, kCouldNotLook},
    Mode{"sync", false, false, false, true, false, &runSync, kFailure},
    Mode{"list", false, true, true, false, false, &runList, kFailure},
    Mode{"show", true, false, true, false, false, &runShow, kFailure},
    Mode{"backup", true, false, false, false, false, &runBackup, kFailure},
    Mode{"restore", true, false, false, false, false, &runRestore, kFailure},
    Mode{"fix", false, true, true, false, true, &runFix, kFailure},
};

class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

po::options_description describeOptions() {
    po::options_description known;
    auto add = known.add_options();
    add("help,h", "")("version", "");
    for (const Mode& mode : kModes) {
        if (mode.takesArgument) {
            add(mode.option, po::value<std::string>(), "");
        } else {
            add(mode.option, "");
        }
    }
    add("domain", po::value<std::string>(), "")("json", "")("wait-stdin", "");
    add("finish-rename", po::value<std::string>(), "")("undo-rename", po::value<std::string>(), "");
    return known;
}

po::variables_map parse(int argc, char** argv) {
    po::variables_map values;
    try {
        using Style = po::command_line_style::style_t;
        const int style = po::command_line_style::unix_style & ~Style::allow_guessing;
        po::store(po::command_line_parser(argc, argv)
                      .options(describeOptions())
                      .positional(po::positional_options_description())
                      .style(style)
                      .run(),
                  values);
    } catch (const po::unknown_option& error) {
        throw UsageError("unknown option " + error.get_option_name());
    } catch (const po::error& error) {
        throw UsageError(error.what());
    }
    return values;
}

/// The one mode that was asked for.
const Mode& chooseMode(const po::variables_map& values) {
    const Mode* chosen = nullptr;
    for (const Mode& mode : kModes) {
        if (values.count(mode.option) != 0) {
            if (chosen != nullptr) {
                throw UsageError(std::string("--") + chosen->option + " and --" + mode.option +
                                 " cannot be done at the same time");
            }
            chosen = &mode;
        }
    }
    if (chosen == nullptr) {
        throw UsageError(values.empty() ? "no option specified" : "none of the options says what to do");
    }
    return *chosen;
}

std::string domainName(const std::string& given) {
    std::string name = asStored(given);
    if (is_domain_name_valid(name.c_str()) == 0) {
        throw UsageError("'" + given + "' is not the name of a domain");
    }
    return name;
}

/// A domain, or the address of a mailname.
std::string domainOrAddress(const std::string& given) {
    const std::string::size_type at = given.rfind('@');
    if (at == std::string::npos) {
        return domainName(given);
    }
    std::string name = given.substr(0, at);
    if (is_mailname_valid(name.c_str()) == 0) {
        throw UsageError("'" + given + "' is not an address");
    }
    ascii_lower(name.data());
    return name + '@' + domainName(given.substr(at + 1));
}

Renamed renamed(const std::string& given) {
    const std::string::size_type colon = given.find(':');
    if (colon == std::string::npos) {
        throw UsageError("'" + given + "' is not of the form OLD:NEW");
    }
    Renamed names{domainOrAddress(given.substr(0, colon)), domainOrAddress(given.substr(colon + 1))};
    if (names.oldName == names.newName) {
        throw UsageError("both names of '" + given + "' are one");
    }
    const auto domainPart = [](const std::string& name) { return name.substr(std::min(name.find('@'), name.size())); };
    if (domainPart(names.oldName) != domainPart(names.newName)) {
        throw UsageError("'" + given + "' is no rename of a domain, nor of a mailname within one");
    }
    return names;
}

Options readOptions(const Mode& mode, const po::variables_map& values) {
    const auto given = [&](const char* option, bool known) {
        if (values.count(option) != 0 && !known) {
            throw UsageError(std::string("--") + option + " does not go with --" + mode.option);
        }
        return values.count(option) != 0;
    };
    const auto value = [&](const char* option, auto* read) {
        try {
            return read(values[option].as<std::string>());
        } catch (const UsageError& error) {
            throw UsageError(std::string("--") + option + ": " + error.what());
        }
    };
    Options options;
    if (given("domain", mode.takesDomain)) {
        options.domain = value("domain", &domainName);
    }
    options.json = given("json", mode.takesJson);
    options.waitStdin = given("wait-stdin", mode.takesDocuments);
    if (given("finish-rename", mode.takesRename)) {
        options.finish = value("finish-rename", &renamed);
    }
    if (given("undo-rename", mode.takesRename)) {
        options.undo = value("undo-rename", &renamed);
        if (options.undo.oldName.find('@') != std::string::npos) {
            throw UsageError("the rename of a mailname is not taken back: finish it, and rename it back");
        }
    }
    if (mode.takesArgument) {
        options.argument = values[mode.option].as<std::string>();
    }
    return options;
}

void finishOutput() {
    if (!std::cout.flush()) {
        throw std::runtime_error("cannot write to standard output");
    }
}

int dispatch(int argc, char** argv) {
    const po::variables_map values = parse(argc, argv);
    if (values.count("help") != 0) {
        std::cout << kUsage;
        finishOutput();
        return kSuccess;
    }
    if (values.count("version") != 0) {
        std::cout << "mxrepair " MXADMIN_VERSION "\n";
        finishOutput();
        return kSuccess;
    }
    const Mode& mode = chooseMode(values);
    const Options options = readOptions(mode, values);
    try {
        if (::geteuid() != 0) {
            throw std::runtime_error("only root may do this");
        }
        const int status = mode.run(options);
        finishOutput();
        return status;
    } catch (const std::exception& error) {
        std::cout.flush();
        std::cerr << "mxrepair: " << error.what() << std::endl;
        return mode.failure;
    }
}

}  // namespace

std::string asStored(const std::string& domain) {
    try {
        std::string name = kavro::idn::toAscii(domain);
        ascii_lower(name.data());
        return name;
    } catch (const kavro::idn::IdnaError&) {
        return "";
    }
}

int run(int argc, char** argv) {
    try {
        return dispatch(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "Error: " << error.what() << '\n' << kUsage << std::flush;
        return kFailure;
    }
}

}  // namespace mxrepair
