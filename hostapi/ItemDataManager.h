// Turns descriptions into the text that the host stores.

#ifndef HOSTAPI_ITEMDATAMANAGER_H
#define HOSTAPI_ITEMDATAMANAGER_H

#include <string>

#include "hostapi/Template.h"

namespace Norvale_Plugin_Core {

class ItemDataManager {
public:
    ItemDataManager() = default;

    /// The stored form of a filled MediaTemplate or MediaFolderTemplate, which stays the caller's. For an
    /// item the text goes to the device with HostServiceClientMac::closeFile(), for a folder with
    /// writeFolderDataXML().
    std::string saveItemData(Template* description);
};

}  // namespace Norvale_Plugin_Core

#endif
