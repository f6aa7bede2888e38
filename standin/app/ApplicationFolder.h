// The program's own folder.
//
//   flickr-backup.app/
//       flickr-backup                           the program
//       Resources/Plugins/
//           FlickrPlugin.bundle/                    the plug-in
//           Flickr_plugin_config.xml            a configuration of earlier days; see Profile.h
//
// Nothing is written there, so that it can belong to another user.

#ifndef STANDIN_APP_APPLICATIONFOLDER_H
#define STANDIN_APP_APPLICATIONFOLDER_H

#include <string>

namespace flickr_app {

/// "…/Resources/Plugins/" of the running program, found through links to it. Throws CannotBegin when the path
/// is not UTF-8, as Foundation needs it.
std::string pluginsDirectory();

}  // namespace flickr_app

#endif
