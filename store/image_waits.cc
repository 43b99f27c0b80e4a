#include "store/image_waits.h"

#include <string>

#include "store/store_internals.h"

LocalStore::ImageWaits::ImageWaits(LocalStore& store, const ImagePaths& paths)
    : store_(store), paths_(paths), disk_(store.internals_->disk) {}

void LocalStore::ImageWaits::start(bool with_study_and_series) {
    const Internals& internals = *store_.internals_;
    disk_.start(internals.image_index.descriptor());
    if (!with_study_and_series) return;
    disk_.start(internals.series_index.descriptor());
    disk_.start(internals.data_file.get());
    disk_.start(internals.hash_file.get());
}

bool LocalStore::ImageWaits::wait_for_names() {
    const std::string series = paths_.series_directory.c_str();
    return disk_.wait_for_directory(series) &&
           disk_.wait_for_directory(tarvo::directory_of(series));
}

bool LocalStore::ImageWaits::wait_for_disk(bool has_image) {
    const Internals& internals = *store_.internals_;
    return (has_image || disk_.wait_for_contents(paths_.image.c_str())) &&
           wait_for(internals.image_index, paths_.image_index) &&
           disk_.wait_for_directory(paths_.series_directory.c_str()) &&
           wait_for(internals.series_index, paths_.series_index) && wait_for_study() &&
           wait_for_ancestors();
}

bool LocalStore::ImageWaits::wait_for(const tarvo::LevelIndex& index, const OFString& path) {
    return index.descriptor() < 0 ||
           disk_.wait_for_file(index.descriptor(), path.c_str(), index.entered());
}

bool LocalStore::ImageWaits::wait_for_study() {
    const Internals& internals = *store_.internals_;
    return disk_.wait_for_file(internals.data_file.get(), tarvo::study_data_path(store_).c_str(),
                               internals.last_study.data) &&
           disk_.wait_for_file(internals.hash_file.get(), tarvo::study_hash_path(store_).c_str(),
                               internals.last_study.hash);
}

// The directories of the study, of the fan-out, of the UID tree and the base itself.
bool LocalStore::ImageWaits::wait_for_ancestors() {
    std::string path = paths_.series_directory.c_str();
    for (int i = 0; i < 5; ++i) {
        path = tarvo::directory_of(path);
        if (!disk_.wait_for_directory(path)) return false;
    }
    return disk_.wait_once_for_directory(path + "/..");
}
