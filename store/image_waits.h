// Private to store/: what the disk must have before an image counts as stored.
#pragma once

#include "store/disk_sync.h"
#include "store/level_index.h"
#include "store/local_store.h"

// Where one image, its series and its study have their files.
struct LocalStore::ImagePaths {
    OFString image;
    OFString series_directory;
    OFString series_index;
    OFString image_index;
};

// The waits for one image. Each comes back at once where nothing has changed since this process
// last waited, and without waiting for the disk all of them do nothing and succeed.
class LocalStore::ImageWaits {
  public:
    // Borrows both.
    ImageWaits(LocalStore& store, const ImagePaths& paths);

    // Begins to write back what has been entered into the index files, all at once, so that the
    // waits at the end run side by side.
    void start(bool with_study_and_series);

    // Before the series is entered: should the disk get its record and lose what that leads to,
    // every enumeration of the study's images would end there.
    [[nodiscard]] bool wait_for_names();

    // From the image upwards: with every name and record that leads to it. False with errno set.
    // `has_image`: the disk has the contents of the image file already.
    [[nodiscard]] bool wait_for_disk(bool has_image);

  private:
    [[nodiscard]] bool wait_for(const tarvo::LevelIndex& index, const OFString& path);
    [[nodiscard]] bool wait_for_study();
    [[nodiscard]] bool wait_for_ancestors();

    LocalStore& store_;
    const ImagePaths& paths_;
    tarvo::DiskSync& disk_;
};
