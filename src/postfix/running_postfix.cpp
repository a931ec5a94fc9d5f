// Modification times of maps, and the signal to the address resolver.
#include "postfix/running_postfix.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <ctime>
#include <exception>
#include <fstream>
#include <list>
#include <sstream>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "postfix/tables.h"
#include "process/descriptors.h"
#include "util/file_io.h"
#include "util/process_search.h"

namespace kavro::mail::postfix {

namespace {

/// The resolver as Debian's Postfix runs it.
constexpr const char* kResolver = "/usr/lib/postfix/sbin/trivial-rewrite";

constexpr const char* kResolverSocket = "/var/spool/postfix/private/rewrite";
constexpr std::chrono::milliseconds kMasterHears{20};

/// From the start of a resolver to its first answer pass some 10 ms, more on a busy machine.
constexpr std::chrono::milliseconds kFirstAnswer{500};

/// Zero for a missing file.
struct timespec modificationTime(const std::string& file) {
    struct stat found {};
    return ::stat(file.c_str(), &found) == 0 ? found.st_mtim : timespec{};
}

void setSecondAfter(const std::string& file, time_t former) {
    const struct timespec times[2] = {{0, UTIME_OMIT}, {std::max(former, std::time(nullptr)) + 1, 0}};
    ::utimensat(AT_FDCWD, file.c_str(), times, 0);
}

/// What the system knows of one socket of a local service.
struct LocalSocket {
    bool listens;
    bool serves;  ///< the accepted end of a client's connection
};

/// All of them by inode number, as their links in /proc/PID/fd name them.
std::unordered_map<std::string, LocalSocket> localSockets() {
    std::unordered_map<std::string, LocalSocket> sockets;
    std::ifstream table("/proc/net/unix");
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string number, references, protocol, flags, type, state, inode, path;
        fields >> number >> references >> protocol >> flags >> type >> state >> inode >> path;
        // An accepted socket bears the name of the one that listened; a client's own has none.
        sockets["socket:[" + inode + "]"] = {flags == "00010000", state == "03" && !path.empty()};
    }
    return sockets;
}

/// A daemon that listens and has no client. Several are started when several clients come at once, and one may take
/// them all: such a one may have answered nothing yet, however old it is.
bool isIdle(pid_t process, const std::unordered_map<std::string, LocalSocket>& sockets) {
    const std::string directory = "/proc/" + std::to_string(process) + "/fd/";
    const CDirectory descriptors = openDirectory(directory.c_str());
    bool listens = false;
    while (const dirent* entry = descriptors == nullptr ? nullptr : ::readdir(descriptors.get())) {
        std::array<char, 64> target{};
        if (::readlink((directory + entry->d_name).c_str(), target.data(), target.size() - 1) == -1) {
            continue;
        }
        if (const auto socket = sockets.find(target.data()); socket != sockets.end()) {
            if (socket->second.serves) {
                return false;
            }
            listens = listens || socket->second.listens;
        }
    }
    return listens;
}

/// A client that asks one question, for a daemon that shall have answered one, and stays until its end.
class ResolverClient {
public:
    ResolverClient() : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const struct timeval patience { 0, 500'000 };
        ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        struct sockaddr_un address {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, kResolverSocket, sizeof address.sun_path - 1);
        constexpr std::string_view kQuestion("request\0rewrite\0rule\0local\0address\0postmaster\0\0", 47);
        std::array<char, 1024> answer;
        answered_ = ::connect(socket_.get(), reinterpret_cast<const struct sockaddr*>(&address), sizeof address) == 0 &&
                    ::send(socket_.get(), kQuestion.data(), kQuestion.size(), MSG_NOSIGNAL) ==
                        static_cast<ssize_t>(kQuestion.size()) &&
                    ::recv(socket_.get(), answer.data(), answer.size(), 0) > 0;
        // Postfix's master hears of the answer a moment later.
        std::this_thread::sleep_for(kMasterHears);
    }
    bool answered() const noexcept { return answered_; }

private:
    QuietFdOwner socket_;
    bool answered_ = false;
};

void endResolver(const RunningProcess& resolver) {
    if (resolver.age < kFirstAnswer) {
        std::this_thread::sleep_for(kFirstAnswer - resolver.age);
    }
    if (runsProgram(resolver.id, kResolver)) {
        ::kill(resolver.id, SIGINT);
    }
}

/// Ends those that run now. An idle one is made to answer first: while the others are gone, the next client is its own.
void endResolvers() {
    std::vector<RunningProcess> resolvers = findProcessesByPath(kResolver);
    std::list<ResolverClient> clients;
    for (std::size_t tries = resolvers.size() + 1; tries > 0; --tries) {
        const auto sockets = localSockets();
        std::vector<RunningProcess> idle;
        for (const RunningProcess& resolver : resolvers) {
            if (isIdle(resolver.id, sockets)) {
                idle.push_back(resolver);
            } else {
                endResolver(resolver);
            }
        }
        if (idle.empty() || !clients.emplace_back().answered()) {
            return;
        }
        resolvers = std::move(idle);
    }
}

}  // namespace

MapSecond::MapSecond(const std::string& table) : file_(mapFile(table)), before_(modificationTime(file_)) {
}

MapSecond::~MapSecond() {
    const struct timespec now = modificationTime(file_);
    if (before_.tv_sec != 0 && (now.tv_sec != before_.tv_sec || now.tv_nsec != before_.tv_nsec)) {
        setSecondAfter(file_, before_.tv_sec);
    }
}

RoutingNotice::~RoutingNotice() {
    try {
        endResolvers();
        // A daemon may have got, and kept, an answer of the old resolver after it had read the new map.
        const std::string read = mapFile(kVirtualTable);
        setSecondAfter(read, modificationTime(read).tv_sec);
    } catch (const std::exception&) {
        // No memory for the list: the resolver looks by itself, later.
        return;
    }
}

}  // namespace kavro::mail::postfix
