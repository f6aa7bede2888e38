// The sources of the gallery's page, as they stand in page/.

#ifndef STANDIN_GALLERY_PAGE_H
#define STANDIN_GALLERY_PAGE_H

namespace flickr_gallery {

extern const char* const kPageHtml;  ///< "{style}", "{texts}", "{script}", "{sets}": names of files
extern const char* const kPageStyle;
extern const char* const kPageTexts;
extern const char* const kPageScript;

}  // namespace flickr_gallery

#endif
