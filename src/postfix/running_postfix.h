// What a running Postfix keeps in memory and would not notice by itself, or not soon: its daemons compare the whole
// seconds of a map's modification time between two clients, and its address resolver looks every ten seconds at best.
#pragma once

#include <ctime>
#include <string>

namespace kavro::mail::postfix {

/// Around one change of a hash map. At the end of its life the map gets a modification time in a second of its own, one
/// later than the former or than now: a daemon that opened the map in the second of the change would else keep what it
/// read. An unchanged or missing map is left alone. Failures are ignored: the change itself is done by then.
class MapSecond {
public:
    /// `table` is the full map name ("hash:/path").
    explicit MapSecond(const std::string& table);
    ~MapSecond();
    MapSecond(const MapSecond&) = delete;
    MapSecond& operator=(const MapSecond&) = delete;

private:
    std::string file_;
    struct timespec before_ {};  ///< its modification time; zero for a missing map
};

/// Held by a command that changes which domains and domain aliases this node answers for. At its end, whatever the
/// outcome, each running process of the resolver gets SIGINT, once; Postfix starts a fresh one for the next question.
/// One that has not answered anything yet must not be ended: Postfix would take it for a broken program and start none
/// for a minute. So one younger than half a second is waited for, and one without a client is asked first. Then the
/// daemons that kept the old answers are made to start anew: the table of aliases, which all of them read, gets another
/// second.
class RoutingNotice {
public:
    RoutingNotice() = default;
    ~RoutingNotice();
    RoutingNotice(const RoutingNotice&) = delete;
    RoutingNotice& operator=(const RoutingNotice&) = delete;
};

}  // namespace kavro::mail::postfix
