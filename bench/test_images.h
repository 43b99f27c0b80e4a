// The images that are stored, as data sets and as files: CT slices that differ in everything but
// the pixels.
#pragma once

#include <string>

namespace bench {

// Which images a command is about: numbers first to first + count - 1.
struct Images {
    long first;
    long count;
    long pixels;     // bytes of each
    long per_study;  // all of them in one series; 0: all images in a single study
};

struct Uids {
    std::string study, series, image;
};

[[nodiscard]] Uids uids_of(const Images& images, long number);
[[nodiscard]] std::string data_set(const Images& images, long number);

// Writes each as a DICOM file <number>.dcm.
void write_files(const std::string& folder, const Images& images);

}  // namespace bench
