// Internal to the temporary vector store (krxtools.cpp, krxtools_files.cpp): the record layout
// step, positioned raw access to the store's files and the names and places of temporary files.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "model/krxdata.h"

namespace krx {

// A node's six values start every 48 bytes in both precisions; floats fill the first 24.
constexpr int64_t kNodeStep = 48;

inline bool valid_kind(int kind) { return kind >= kModeShapes && kind <= kModalStrain; }

// size bytes at offset, with pwrite or pread on the stream's descriptor; false on failure.
bool write_at(FILE *file, const unsigned char *data, int64_t size, int64_t offset);
bool read_at(FILE *file, unsigned char *data, int64_t size, int64_t offset);
// Lays out size bytes of the file at once; false when the disk has no room.
bool lay_out(FILE *file, int64_t size);

// The directory of unnamed temporary files, and the directory part of a path.
std::string temp_directory();
std::string directory_of(const std::string &path);
// A fresh file "<dir>/krx_XXXXXX" opened for reading and writing; path is the name tried.
FILE *open_unique_file(const std::string &dir, std::string &path);
// The file name a kind's environment variable (QOR_TMP_MOD, _STR, _STN) gives, or null.
const char *given_path(int kind);
// Closes and deletes a file.
void discard_file(FILE *file, const std::string &path);

}  // namespace krx
