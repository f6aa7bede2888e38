// Orders to the simulator that only today's service takes:
//
//   /sim/sign-in?oauth_token=T[&answer=deny]   what the user answers on the page; the answer is the code to
//                                              copy, or the address to which the user is sent back
//   /sim/expire-tokens                         no access token given so far is good any longer
//   /sim/clock?offset=SECONDS                  how far the service's clock is ahead
//   /sim/limits?[list=N][&media=N][&window=SECONDS][&retry-after=0]
//                                              requests answered in a window (0: all), and whether a refusal
//                                              says how long to wait

#ifndef SIM_TODAYORDERS_H
#define SIM_TODAYORDERS_H

#include <optional>
#include <string>

#include "sim/Message.h"
#include "sim/TodayApi.h"

namespace flickr_sim {

/// Carries out the order of that name and gives its answer; none when it is no such order. Throws
/// Poco::SyntaxException when there is no today.
std::optional<std::string> carryOutToday(const std::string& name, const Request& order, TodayApi* today);

}  // namespace flickr_sim

#endif
