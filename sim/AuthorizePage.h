// The pages on which a user allows an application to read the account.

#ifndef SIM_AUTHORIZEPAGE_H
#define SIM_AUTHORIZEPAGE_H

#include <string>

namespace flickr_sim {

/// The form: a button to allow, one to refuse. It is posted to the page's own address.
std::string authorizeForm(const std::string& userName, const std::string& requestToken,
                          const std::string& permissions);

/// A verifier that the user copies.
std::string codePage(const std::string& code);

/// A page that says something.
std::string messagePage(const std::string& title, const std::string& sentence);

}  // namespace flickr_sim

#endif
