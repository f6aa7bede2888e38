// What the descriptions of items and folders have in common.

#ifndef HOSTAPI_TEMPLATE_H
#define HOSTAPI_TEMPLATE_H

#include <string>
#include <utility>

namespace Norvale_Plugin_Core {

/// A description. Every value is UTF-8 text, empty until set.
class Template {
public:
    virtual ~Template() = default;

    /// Id of the item or folder, as in the database's ItemId.
    void setID(std::string id) { id_ = std::move(id); }
    const std::string& getID() const { return id_; }

    /// The file or folder on the device, relative to the service folder.
    void setPhysicalFileName(std::string name) { physicalFileName_ = std::move(name); }
    const std::string& getPhysicalFileName() const { return physicalFileName_; }

    /// Where the host's browser is to show the description.
    void setDataXMLPath(std::string path) { dataXMLPath_ = std::move(path); }
    const std::string& getDataXMLPath() const { return dataXMLPath_; }

private:
    std::string id_;
    std::string physicalFileName_;
    std::string dataXMLPath_;
};

}  // namespace Norvale_Plugin_Core

#endif
