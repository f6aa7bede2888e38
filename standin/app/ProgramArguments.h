// What the program was started with, kept apart from what Foundation gets to see of it.
//
// GNUstep reads arguments and environment when its library is loaded, before main(), and ends the program at
// bytes that are no UTF-8. They are looked over before that: each such argument is kept here and masked where
// the system shows it, and each such variable, of which the program uses none, is taken out.

#ifndef STANDIN_APP_PROGRAMARGUMENTS_H
#define STANDIN_APP_PROGRAMARGUMENTS_H

namespace flickr_app {

/// The arguments as they were given; ends with a null.
char** programArguments();

/// Lets Foundation write names of files in UTF-8 whatever the user's language settings are. To be called at
/// the start of main().
void setUpFoundation();

}  // namespace flickr_app

#endif
