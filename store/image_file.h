// Private to store/: writing images as DICOM files (PS3.10, 7).
#pragma once

#include <cstdio>
#include <string>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdatset.h"

#include "store/disk_sync.h"

namespace tarvo {

// Writes `dataset` to the new file `path`, in the place of one that is there, with file meta
// information made by the toolkit. The bytes are those of DcmFileFormat::saveFile, but every
// failure is reported: of a full disk saveFile (3.6.7) says nothing when only the last bytes are
// missing.
//
// The dataset is borrowed and never copied: it may be as large as half the memory. Returns false
// and the reason when the file is not complete, or, where `sync` waits for the disk, not on the
// disk; it may be there all the same.
[[nodiscard]] bool write_image_file(DcmDataset& dataset, E_TransferSyntax syntax,
                                    const std::string& path, const DiskSync& sync,
                                    std::string& reason);

// Writes `dataset` under a temporary name (`target` and ".<process id>.tmp") and moves it to
// `target` in one step, replacing what is there: in Explicit VR Little Endian when the toolkit
// can convert it, else in the transfer syntax in which it was received. The contents are on the
// disk before the name is; waiting for the name is left to the caller.
// On failure the temporary file is removed, the reason is logged and the result is false.
[[nodiscard]] bool store_image(DcmDataset& dataset, const std::string& target, const DiskSync& sync,
                               FILE* log);

}  // namespace tarvo
