// Orders to the simulator while it runs: GET requests under /sim/ on its plain HTTP address.
//
// Each needs the simulator's random word as a further parameter, word=WORD: other users of the machine, and
// pages in a browser, reach the address as well. flickr-sim writes it to its ready file.
//
//   /sim/counts                                requests so far, as JSON
//   /sim/list                                  the account, a line for each set and item: kind, id, title
//   /sim/add?title=T[&set=ID][&media=video][&bytes=N]      a new item; set=none: in no set
//   /sim/edit[?id=ID][&bytes=N]                new content and a later update time
//   /sim/retitle?title=T[&id=ID]
//   /sim/add-set?title=T
//   /sim/add-to-set?set=ID&id=ID               one more set for an item
//   /sim/rename-set?title=T[&id=ID]
//   /sim/delete[?id=ID]                        an item
//   /sim/delete-set[?id=ID]
//   /sim/fault?spec=TEXT                       one more fault, in the text form of Faults.h
//   /sim/clear-faults
//   /sim/reset-counts
//   /sim/before-page?page=N&order=ORDER        an order (such as delete%3Fid%3D7) that waits until page N
//                                              of a list is asked for: a list that changes between two pages
//
// TodayOrders.h has those of today's service.
//
// An id or set that is left out is the first set or its first item. Answers are one line of text: the id of
// what was made or changed, or with status 400 what is wrong; 403 without the word.

#ifndef SIM_CONTROL_H
#define SIM_CONTROL_H

#include <string>

#include "sim/Account.h"
#include "sim/Faults.h"
#include "sim/Message.h"
#include "sim/RequestLog.h"
#include "sim/TodayApi.h"

namespace flickr_sim {

/// What orders act on. All of it outlives the order, and those that it keeps for later.
struct Controls {
    const std::string& word;  ///< that every order has to bring
    Account& account;
    Faults& faults;
    RequestLog& log;
    TodayApi* today;  ///< null without today's side
};

/// Carries out an order.
Reply obey(const Request& order, const Controls& controls);

}  // namespace flickr_sim

#endif
