// Reading attribute values from a dataset and building the identifiers of C-FIND responses,
// without the toolkit's condition handling.
#pragma once

#include <vector>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdatset.h"

// Value of the attribute `tag` on the top level of `item` (sequence items are not searched), as
// it stands in the dataset: several values are separated by backslashes, padding is cut.
//
// The text belongs to the dataset: valid while that lives and the element is unchanged. Null for
// an absent attribute or one whose VR is no text, and it may be null for an empty one: take null
// as an absent value. A null `item` has no attributes.
[[nodiscard]] const char* DCMTK_getTagString(const DcmItem* item, const DcmTagKey& tag);

namespace tarvo {

// The same for many attributes of one item: each look-up in the item itself walks through its
// elements. Borrows the item; valid while that lives and no element is added or taken away.
class AttributeTexts {
  public:
    explicit AttributeTexts(const DcmItem* item);
    [[nodiscard]] const char* operator[](const DcmTagKey& tag) const;

  private:
    std::vector<DcmElement*> elements_;  // by tag
};

}  // namespace tarvo

// Results of DCMTK_Key_AddVR and DCMTK_Key_Add.
namespace tarvo {
constexpr int key_inserted = 0;
constexpr int key_without_dataset = -1;
constexpr int key_tag_invalid = -2;  // also: not in the toolkit's dictionary and no VR given
constexpr int key_element_not_created = -3;
constexpr int key_value_refused = -4;
constexpr int key_not_inserted = -5;
}  // namespace tarvo

// Puts the attribute (group,element) with VR `vr` into `dataset`, replacing an element with the
// same tag. A null or empty `value` makes an empty element: a universal matching key (PS3.4,
// C.2.2.2.3) or an empty response attribute. A null `vr` takes the VR of the toolkit's
// dictionary; a `vr` that the toolkit does not know makes an element of its unknown VR.
//
// Returns one of the codes above; the dataset is unchanged unless it is 0.
int DCMTK_Key_AddVR(DcmDataset* dataset, int group, int element, const char* value, const char* vr);

// The same with the VR of the dictionary.
int DCMTK_Key_Add(DcmDataset* dataset, int group, int element, const char* value);

// A new, empty dataset; the caller owns it (std::unique_ptr takes it).
[[nodiscard]] DcmDataset* DCMTK_Dataset_Create();

// The array of a top-level element with 16-bit or 8-bit values. It belongs to the dataset. When
// `length` is given, it receives the length of the element in BYTES, also for 16-bit values.
// Null, with `length` untouched, when the element is absent or of another kind; an empty element
// gives null and length 0.
[[nodiscard]] Uint16* DCMTK_getUnit16Field(DcmItem* item, const DcmTagKey& tag, int* length);
[[nodiscard]] Uint8* DCMTK_getUnit8Field(DcmItem* item, const DcmTagKey& tag, int* length);
