#include "dicom/dataset.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcelem.h"
#include "dcmtk/dcmdata/dctag.h"
#include "dcmtk/dcmdata/dcvrui.h"

#include "dicom/toolkit_trace.h"

using tarvo::trace_toolkit_failure;
using tarvo::trace_toolkit_information;

namespace {

bool fits_tag(int group, int element) {
    return group >= 0 && group <= 0xffff && element >= 0 && element <= 0xffff;
}

DcmTag make_tag(int group, int element, const char* vr) {
    const auto tag_group = static_cast<Uint16>(group);
    const auto tag_element = static_cast<Uint16>(element);
    if (vr == nullptr) return {tag_group, tag_element};
    DcmVR representation;
    representation.setVR(vr);
    return {tag_group, tag_element, representation};
}

// An element for `tag`, or null. Of the toolkit's creators only this one keeps the tag's VR: the
// others look it up in the dictionary.
std::unique_ptr<DcmElement> create_element(const DcmTag& tag) {
    DcmElement* element = nullptr;
    if (DcmItem::newDicomElementWithVR(element, tag).bad()) return nullptr;
    return std::unique_ptr<DcmElement>(element);
}

// A UID is put as it stands: the toolkit would look up the name behind a "=" at its start, and
// answers would name another image than the one that is stored.
OFCondition put_text(DcmElement& element, const char* value) {
    auto* const uid = dynamic_cast<DcmUniqueIdentifier*>(&element);
    if (uid == nullptr) return element.putString(value);
    return uid->DcmByteString::putString(value, static_cast<Uint32>(std::strlen(value)));
}

bool put_value(DcmElement& element, const char* value) {
    return value == nullptr || *value == '\0' || put_text(element, value).good();
}

int insert_element(DcmDataset& dataset, std::unique_ptr<DcmElement> element) {
    if (dataset.insert(element.get(), OFTrue, OFFalse).bad()) {
        trace_toolkit_failure("DCMTK_Key_AddVR: Can't Insert Value in Set.\n");
        return tarvo::key_not_inserted;
    }
    static_cast<void>(element.release());  // the dataset owns it from here on
    return tarvo::key_inserted;
}

DcmElement* find_element(DcmItem* item, const DcmTagKey& tag) {
    DcmElement* element = nullptr;
    if (item == nullptr || item->findAndGetElement(tag, element).bad()) return nullptr;
    return element;
}

// The toolkit's look-ups move a cursor inside the item and load values that are still on disk,
// hence are not const; the attributes stay as they are.
DcmItem* mutable_item(const DcmItem* item) { return const_cast<DcmItem*>(item); }

const char* text_of(DcmElement* element) {
    char* value = nullptr;
    if (element == nullptr || element->getString(value).bad()) {
        trace_toolkit_information("DCMTK_getTagString: failure\n");
        return nullptr;
    }
    return value;
}

bool has_lower_tag(DcmElement* element, const DcmTagKey& tag) { return element->getTag() < tag; }

void report_length(DcmElement& element, int* length) {
    if (length != nullptr) *length = static_cast<int>(element.getLength());
}

}  // namespace

const char* DCMTK_getTagString(const DcmItem* item, const DcmTagKey& tag) {
    return text_of(find_element(mutable_item(item), tag));
}

namespace tarvo {

// In whatever order a peer sends its elements, the toolkit keeps them by tag and each only once.
AttributeTexts::AttributeTexts(const DcmItem* item) {
    if (item == nullptr) return;
    DcmItem* const walked = mutable_item(item);
    elements_.reserve(walked->card());
    for (DcmObject* object = walked->nextInContainer(nullptr); object != nullptr;
         object = walked->nextInContainer(object)) {
        elements_.push_back(static_cast<DcmElement*>(object));
    }
}

const char* AttributeTexts::operator[](const DcmTagKey& tag) const {
    const auto found = std::lower_bound(elements_.begin(), elements_.end(), tag, has_lower_tag);
    return text_of(found != elements_.end() && (*found)->getTag() == tag ? *found : nullptr);
}

}  // namespace tarvo

int DCMTK_Key_AddVR(DcmDataset* dataset, int group, int element, const char* value,
                    const char* vr) {
    if (dataset == nullptr) {
        trace_toolkit_failure("DCMTK_Key_AddVR: Set is NULL.\n");
        return tarvo::key_without_dataset;
    }
    if (!fits_tag(group, element)) return tarvo::key_tag_invalid;
    const DcmTag tag = make_tag(group, element, vr);
    if (tag.error().bad()) return tarvo::key_tag_invalid;
    std::unique_ptr<DcmElement> created = create_element(tag);
    if (!created) {
        trace_toolkit_failure("DCMTK_Key_AddVR: Can't Create Element.\n");
        return tarvo::key_element_not_created;
    }
    if (!put_value(*created, value)) {
        trace_toolkit_failure("DCMTK_Key_AddVR: Can't Put Value in Set.\n");
        return tarvo::key_value_refused;
    }
    return insert_element(*dataset, std::move(created));
}

int DCMTK_Key_Add(DcmDataset* dataset, int group, int element, const char* value) {
    return DCMTK_Key_AddVR(dataset, group, element, value, nullptr);
}

DcmDataset* DCMTK_Dataset_Create() { return new DcmDataset; }

Uint16* DCMTK_getUnit16Field(DcmItem* item, const DcmTagKey& tag, int* length) {
    DcmElement* const element = find_element(item, tag);
    if (element == nullptr) {
        trace_toolkit_information("DCMTK_getUnit16Field: find failure\n");
        return nullptr;
    }
    Uint16* values = nullptr;
    if (element->getUint16Array(values).bad()) {
        trace_toolkit_information("DCMTK_getUnit16Field: getUint16Array failure\n");
        return nullptr;
    }
    report_length(*element, length);
    return values;
}

Uint8* DCMTK_getUnit8Field(DcmItem* item, const DcmTagKey& tag, int* length) {
    DcmElement* const element = find_element(item, tag);
    if (element == nullptr) {
        trace_toolkit_information("DCMTK_getUnit8Field: find failure\n");
        return nullptr;
    }
    Uint8* values = nullptr;
    if (element->getUint8Array(values).bad()) {
        trace_toolkit_information("DCMTK_getUnit8Field: getUint8Array failure\n");
        return nullptr;
    }
    report_length(*element, length);
    return values;
}
