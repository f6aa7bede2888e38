// The program's own folder.
//
//   flickr-backup.app/
//       flickr-backup                           the program
//       Resources/Plugins/
//           FlickrPlugin.bundle/                    the plug-in
//           Flickr_plugin_config.xml            the plug-in's configuration, written by "configure"
//           NVHLDevLog.log                      the developer log

#ifndef STANDIN_APP_APPLICATIONFOLDER_H
#define STANDIN_APP_APPLICATIONFOLDER_H

#include <string>

namespace flickr_app {

/// "…/Resources/Plugins/" of the running program, found through links to it. Throws UsageError when the path
/// is not UTF-8, as Foundation needs it.
std::string pluginsDirectory();

/// The configuration and the log in it.
std::string configurationFile();
std::string logFile();

}  // namespace flickr_app

#endif
