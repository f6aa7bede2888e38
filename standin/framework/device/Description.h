// Descriptions: an XML file beside the media for each item and each folder, on which a viewer can be
// built without the database.
//
//   Trip/.records/sunset.jpg.xml    the description of Trip/sunset.jpg
//   Trip/.records/.folder.xml       the description of the folder Trip
//   .records/clip.mp4.xml           the description of clip.mp4, an item in no set
//
// The name of an item's description is its file name and ".xml". The root element is "media" or "folder";
// each field of the template is one element in it, "Tags" holds one element "Tag" for each tag. In a stored
// item description PhysicalFileName and ThumbnailName are relative to the folder in which ".records" stands,
// so that descriptions stay right when the folder is renamed. Descriptions hold nothing about the run that
// wrote them: the same item gives the same bytes.

#ifndef STANDIN_FRAMEWORK_DEVICE_DESCRIPTION_H
#define STANDIN_FRAMEWORK_DEVICE_DESCRIPTION_H

#include <string>
#include <vector>

namespace flickr_standin {

constexpr const char* kDescriptionExtension = ".xml";
constexpr const char* kFolderDescription = ".folder.xml";

/// Writes a description field by field. By hand, so that the same item gives the same bytes with any version
/// of a library, and a field is found again without reading the whole as XML.
class DescriptionWriter {
public:
    /// root: "media" or "folder".
    explicit DescriptionWriter(const char* root);

    void field(const std::string& name, const std::string& value);
    void list(const std::string& name, const std::string& entry, const std::vector<std::string>& values);
    std::string finished() &&;

private:
    std::string root_;
    std::string text_;
};

/// Value of a field of a description that ItemDataManager wrote; empty when it has none.
std::string descriptionField(const std::string& description, const std::string& field);

/// The values of all of a description's elements of that name, in their order.
std::vector<std::string> descriptionValues(const std::string& description, const std::string& field);

/// The description with another value for the field; unchanged when it has no such field.
std::string withDescriptionField(const std::string& description, const std::string& field,
                                 const std::string& value);

/// The description with one more field behind its others.
std::string withNewField(const std::string& description, const std::string& field, const std::string& value);

}  // namespace flickr_standin

#endif
