// The archive of a bundle: a tar file, compressed by gzip.
#ifndef KAVEL_CTL_BUNDLE_ARCHIVE_H
#define KAVEL_CTL_BUNDLE_ARCHIVE_H

#include <cstdint>
#include <span>
#include <string>

#include "bundle_content.h"

namespace kavel::ctl {

// Throws InputError if a new file `path` could not be created now: before the time that collecting takes is spent.
void CheckNewFile(const std::string &path);

// Creates the file `path` with mode 0600, with the files below one directory. `time` is their Unix time in seconds. On
// a failure nothing is left of it. Returns its size in bytes. Throws InputError.
std::uint64_t WriteArchive(const std::string &path, const std::string &directory, std::span<const BundleFile> files,
                           std::uint64_t time);

} // namespace kavel::ctl

#endif
