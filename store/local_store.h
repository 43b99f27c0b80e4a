// The image store: DICOM files (PS3.10) below a base directory, named by their UIDs, with index
// files beside them that answer queries.
//
//   <base>/uid/STUDYINDEX.hash, .dat             one entry and one record a study
//   <base>/uid/<C1>/<C2>/study_<S>/              C1, C2: CRC-32 of the Study Instance UID
//       SERIESINDEX.dat                          one record a series
//       series_<R>/IMAGEINDEX.dat                one record an image
//       series_<R>/image_<I>.dcm                 the image
//   <base>/patient/...                           links to the images, for people (WriteSymlinks)
//
// <S>, <R> and <I> are the Study, Series and SOP Instance UID as they stand in the dataset. A UID
// that holds '/' names nothing: it is never present, and storing it fails without a trace on
// disk.
//
// Any number of processes, also on behalf of several servers, use one tree at a time. Each has
// its own LocalStore; they meet in the locks of the index files only. UIDs are C strings and may
// be null. Directories are made with mode 0777, files with 0664, under the umask.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdatset.h"

#include "store/query_template.h"
#include "store/records.h"
#include "support/whole_file_lock.h"

namespace tarvo {

// Results of the store's operations.
constexpr int store_success = 0;
constexpr int store_exists = 1;            // the image is there already and was to be kept
constexpr int store_absent = 2;            // no such file, or it cannot be read
constexpr int store_io_failure = 3;        // opening, locking, reading or writing failed
constexpr int store_base_unusable = 4;     // the base directory denies access
constexpr int store_directory_failed = 5;  // a directory of the tree could not be made
constexpr int store_uid_missing = 6;       // the dataset lacks one of the three UIDs

}  // namespace tarvo

class LocalStore {
  public:
    const char* baseDir;           // without '/' at its end; never null
    std::int32_t baseDirOwned;     // nonzero: baseDir is a heap copy of our own
    std::int32_t verbosity;        // 2; start-up raises it to 5 or 6
    studyhash* studyHash;          // copy of the study hash file, grown by reallocStudyHash only
    std::uint32_t studyHashCount;  // entries in studyHash
    std::uint32_t studyHashMtime;  // seconds since the epoch: the file when it was last loaded
    FILE* logfile;                 // borrowed; null: the store is silent

    // Takes the base directory from the configuration file "LocalStoreDir", else /ct/dicom.
    // A base directory that cannot be used is reported and kept: operations fail one by one.
    LocalStore();
    // `directory` is borrowed and outlives the store.
    explicit LocalStore(const char* directory);
    LocalStore(const LocalStore&) = delete;
    LocalStore& operator=(const LocalStore&) = delete;
    LocalStore(LocalStore&&) = delete;
    LocalStore& operator=(LocalStore&&) = delete;
    ~LocalStore();

    void setLogfile(FILE* stream) { logfile = stream; }

    // Whether images are on the disk before they count as stored: always, unless TARVO_SYNC=off
    // stood in the environment when the store was built.
    [[nodiscard]] bool waitsForDisk() const;

    // Makes the first line of the file the base directory, as it stands up to the first CR or LF
    // and 1023 characters: an empty line is an empty directory. Does nothing when the file cannot
    // be opened.
    void ReadBaseDirConfig(const char* filename);

    // 0, or 4 when the real user may not read, traverse or write `directory` (logged at level 8).
    int check_and_complain_dir(const char* directory);

    // Paths. Nothing is looked up, and any UID is taken as it stands. Every component is added
    // for its own UID, whatever the others are; without base the path starts with "/uid".
    [[nodiscard]] OFString GetUidPath(const char* study, const char* series, const char* image,
                                      int withBase) const;
    [[nodiscard]] OFString GetUidPath(DcmDataset* dataset, int withBase) const;
    // IMAGEINDEX with a series, else SERIESINDEX with a study, else STUDYINDEX; without extension.
    [[nodiscard]] OFString GetUidIndexPath(const char* study, const char* series) const;
    // The fan-out directory that holds the study's directory.
    [[nodiscard]] OFString GetUidBasePath(const char* study) const;

    // Makes the directories down to the study's or the series'. 0, or 5 (logged at level 16).
    [[nodiscard]] int CreateUidPath(const char* study, const char* series);

    // 0 when the image can be read, else 2.
    [[nodiscard]] int HaveDataset(DcmDataset* dataset) const;
    [[nodiscard]] int HaveFile(const char* study, const char* series, const char* image) const;
    // Modification time of the image or, without `image`, of the index file (.dat) of that level
    // in seconds since the epoch; 0 when it cannot be read.
    [[nodiscard]] std::uint32_t HaveFileTime(const char* study, const char* series,
                                             const char* image) const;
    // Size of the image in bytes; 0xFFFFFFFF when it cannot be read.
    [[nodiscard]] std::uint32_t HaveFileSize(const char* study, const char* series,
                                             const char* image) const;

    // Size of the file system of the UID tree, and what unprivileged users may still write there,
    // in bytes; 0 when it cannot be asked.
    [[nodiscard]] std::int64_t LS_GetTotalSpace() const;
    [[nodiscard]] std::int64_t LS_GetFreeSpace() const;

    // Stores one image: its study, its series and the image are entered into the index files,
    // then the file itself appears under its name in one step, in Explicit VR Little Endian where
    // the toolkit can convert it without a codec, else as it was received.
    //
    // The dataset is borrowed and keeps its attributes; writing removes Data Set Trailing Padding
    // (FFFC,FFFC) from it and recalculates group lengths. With `overwrite` zero an image that is
    // there already is kept (its index records are brought up to date). `mode` 1 and 2 make the
    // image a symbolic or hard link to the file `source` instead of writing the dataset; `source`
    // may be null otherwise.
    //
    // Returns 0, 1, 3, 5 or 6. After 0 and 1 queries find the image at every level, also when other
    // images of its series were deleted meanwhile, and image, records and names are on the disk
    // (see waitsForDisk). After 3 the index records may be in place while
    // the image is not; storing the image again sets that right.
    [[nodiscard]] int WriteDataset(DcmDataset* dataset, int overwrite, const char* source,
                                   int mode);

    // Adds a link to a stored image to the tree for people. 0, also when the link itself could
    // not be made or another image has its name; 5 when a directory could not be made.
    [[nodiscard]] int WriteSymlinks(DcmDataset* dataset);

    // Resizes studyHash. 0, or nonzero when memory is exhausted: then the copy is empty.
    [[nodiscard]] int reallocStudyHash(int count);
    // Reloads the copy of the study hash when the file changed: 1 loaded, 0 unchanged, -1 failure
    // (no file, a length that is no multiple of 28). With a descriptor the caller holds a lock on
    // the file, without one the shared lock is taken, waiting for it.
    int updateStudyHash(int descriptor);
    int updateStudyHash();
    // The same without waiting for anybody. False when the copy may be stale: somebody holds the
    // lock, or has left a compaction half done, or the file cannot be loaded.
    [[nodiscard]] bool tryUpdateStudyHash();
    // Whether the hash file differs from the copy; false when it is missing or invalid.
    [[nodiscard]] bool mustUpdateStudyHash() const;
    // Removes deleted studies from the copy and both files: 1 compacted, 0 nothing to remove (the
    // files are not touched), -1 failure. The studies left keep their order. With a descriptor
    // the caller holds the exclusive lock, without one it is taken.
    int compactStudyHash(int descriptor);
    int compactStudyHash();
    // The same without waiting for anybody. False when it has to be tried again: somebody holds a
    // lock on the file, or it failed.
    [[nodiscard]] bool tryCompactStudyHash();

    // Copies the attributes that `dataset` holds into a study's entry and record (either may be
    // null); what it lacks stays as it is. Zeroed ones are filled, those of an existing study are
    // merged: the latest value wins, modalities accumulate.
    void studyDataMake(const DcmDataset* dataset, studyhash* entry, studydata* record) const;

    // Fills the two forms of a study-level query (either may be null) from its identifier. Start
    // from open_hash_template() and a zeroed data template: what the query lacks asks for nothing.
    void studyDataMakeTemplate(const DcmDataset* query, studyhash_template* hashTemplate,
                               studydata_template* dataTemplate) const;
    // The bounds YYYYMMDD of a date or date range (PS3.4, C.2.2.2.5): "", "*" and open ends reach
    // from 0 to 99991231; what is no number gives 0.
    void dateRangeHash(const char* range, unsigned* from, unsigned* to) const;
    // 0 when the study may match, 1 when it certainly does not: deleted, or a word says so.
    [[nodiscard]] int studyHashCompare(const studyhash* entry,
                                       const studyhash_template* wanted) const;

    // Answers a query one match a call. `*handle` is null before the first call, keeps the
    // iteration between calls, and is null again after the last; EndFind gives up one that is
    // left before its end. The query stays the same throughout. `level` is STUDY, PATIENT (which
    // counts as STUDY), SERIES or IMAGE; null takes the query's own (0008,0052), and only a given
    // one has the three UIDs of an image answered unasked.
    //
    // Studies come newest first, from this process's copy of the study hash; series and images
    // in the order of their index files, which are read without a lock. A query below study level
    // names its study. A text that fills its field in the study's record is compared together with
    // the fields behind it: a study whose UID has 64 characters is not found by its UID.
    //
    // Returns 0 with a match in `*response` (made when null, then the caller's), 1 when there is
    // no further one or the call makes no sense, -1 when an index cannot be opened or the query
    // does not name its study.
    [[nodiscard]] int FindDataset(void** handle, DcmDataset* query, DcmDataset** response,
                                  const char* level);
    static void EndFind(void** handle);

    // Deletes an image, a series (no `image`) or a study (neither), and upwards what becomes
    // empty by it. A series or study that still holds image files keeps them and its directory.
    // Returns 0; 1 when the index does not name the thing or cannot be opened (nothing is
    // touched at that level and above); -1 when a file or directory could not be removed, or an
    // index not be written. An image whose file is gone already also gives -1, unless the series
    // goes with it: that is how a second delete finishes one that was killed.
    [[nodiscard]] int DeleteFile(const char* study, const char* series, const char* image);

  private:
    struct ImagePaths;
    struct Internals;  // what only the store's own files know
    class Deletion;
    class ImageWaits;
    class ImageWrite;
    class StudyUpdate;

    int updateStudyHash(tarvo::LockWait wait);
    int compactStudyHash(tarvo::LockWait wait);
    [[nodiscard]] bool loadStudyHash(int descriptor, std::uint32_t count);
    // Enters an image into the study files; when `image` is given only while that file exists.
    [[nodiscard]] int recordStudy(const DcmDataset& dataset, const char* image);

    std::unique_ptr<Internals> internals_;
};

// The store of this process, built before main.
extern LocalStore local_store;
