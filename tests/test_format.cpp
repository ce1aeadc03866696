// The stream layer and the block catalogue.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "format/krxformat.h"
#include "format/krxstream.h"
#include "testsupport.h"

namespace {

using namespace krx;

std::vector<unsigned char> file_bytes(FILE *f) {
  std::fflush(f);
  std::vector<unsigned char> bytes;
  std::rewind(f);
  int c;
  while ((c = std::fgetc(f)) != EOF) bytes.push_back(static_cast<unsigned char>(c));
  return bytes;
}

// The bytes of xdr_vector with the element routine, the reference for the bulk path.
template <typename T>
std::vector<unsigned char> reference_bytes(std::vector<T> values, xdrproc_t element) {
  FILE *f = std::tmpfile();
  XDR x;
  xdrstdio_create(&x, f, XDR_ENCODE);
  EXPECT_TRUE(xdr_vector(&x, reinterpret_cast<char *>(values.data()), u_int(values.size()), sizeof(T), element));
  xdr_destroy(&x);
  auto bytes = file_bytes(f);
  std::fclose(f);
  return bytes;
}

// The bulk path writes the reference bytes and reads them back to the values; one value more
// than the file holds fails the read.
template <typename T, typename Put, typename Get>
void check_bulk(const std::vector<T> &values, xdrproc_t element, Put put, Get get) {
  const std::vector<unsigned char> reference = reference_bytes(values, element);
  FileSlot io;
  io.file = std::tmpfile();
  EXPECT_TRUE(bind_xdr_stream(io, XDR_ENCODE, "..\\test"));
  EXPECT_TRUE(put(io, values.data(), values.size()));
  EXPECT_EQ(reference, file_bytes(io.file));
  std::vector<T> back(values.size() + 1);
  std::rewind(io.file);
  EXPECT_TRUE(bind_xdr_stream(io, XDR_DECODE, "..\\test"));
  EXPECT_TRUE(get(io, back.data(), values.size()));
  EXPECT_EQ(values, std::vector<T>(back.begin(), back.end() - 1));
  std::rewind(io.file);
  EXPECT_TRUE(bind_xdr_stream(io, XDR_DECODE, "..\\test"));
  EXPECT_FALSE(get(io, back.data(), back.size()));
  close_stream(io);
}

TEST(Stream, BulkXdrArraysMatchTheElementRoutinesByteForByte) {
  for (std::size_t n : {0, 1, 7, 40001}) {  // 40001 crosses the conversion chunks
    std::vector<int32_t> ints(n);
    std::vector<double> doubles(n);
    std::vector<float> floats(n);
    std::vector<char> chars(n);
    for (std::size_t i = 0; i < n; ++i) {
      ints[i] = int32_t(i * 2654435761u);
      doubles[i] = double(i) * -1.0e-3 + 1.0 / (i + 1);
      floats[i] = float(doubles[i]);
      chars[i] = char(i * 37);  // negative characters included
    }
    SCOPED_TRACE(n);
    check_bulk(ints, xdrproc_t(xdr_int), put_ints, get_ints);
    check_bulk(doubles, xdrproc_t(xdr_double), put_doubles, get_doubles);
    check_bulk(floats, xdrproc_t(xdr_float), put_floats, get_floats);
    check_bulk(chars, xdrproc_t(xdr_char), put_chars, get_chars);
  }
}

TEST(Stream, EncodesPrimitivesAsTheFileContractSays) {
  FileSlot io;
  io.file = std::tmpfile();
  ASSERT_TRUE(bind_xdr_stream(io, XDR_ENCODE, "..\\test"));
  ASSERT_TRUE(put_int(io, 316));
  double one = 1.0;
  ASSERT_TRUE(put_doubles(io, &one, 1));
  EXPECT_EQ((std::vector<unsigned char>{0, 0, 1, 0x3C, 0x3F, 0xF0, 0, 0, 0, 0, 0, 0}), file_bytes(io.file));
  // A character takes four bytes in XDR.
  char text[128] = "title";
  ASSERT_TRUE(put_chars(io, text, 128));
  EXPECT_EQ(12 + 512, tell_stream(io));
  close_stream(io);
}

// Positions past 4 GiB come from the 64-bit file offsets, not from the XDR stream's own.
TEST(Stream, PositionsPastFourGibibytes) {
  krxtest::TempDir dir;
  std::string path = dir.file("big.krx");
  FileSlot io;
  ASSERT_TRUE(open_write_stream(io, path.c_str(), true, "..\\test"));
  const int64_t far = (int64_t(5) << 30) + 12;
  ASSERT_TRUE(seek_stream(io, far));
  std::vector<double> values{1.5, -2.25, 3.0};
  if (!put_doubles(io, values.data(), values.size())) GTEST_SKIP() << "no sparse files here";
  EXPECT_EQ(far + 24, tell_stream(io));
  close_stream(io);
  ASSERT_TRUE(open_read_stream(io, path.c_str()));
  ASSERT_TRUE(bind_xdr_stream(io, XDR_DECODE, "..\\test"));
  EXPECT_EQ(far + 24, stream_file_size(io));
  ASSERT_TRUE(seek_stream(io, far));
  std::vector<double> back(3);
  ASSERT_TRUE(get_doubles(io, back.data(), 3));
  EXPECT_EQ(values, back);
  close_stream(io);
}

TEST(Catalogue, SizeRulesFollowTheCountsAndBothWidths) {
  EXPECT_EQ(nullptr, block_info(0));
  EXPECT_EQ(nullptr, block_info(33));
  // Flags 7 and 11 of the content summary belong to no block.
  EXPECT_EQ(0, block_of_flag(7));
  EXPECT_EQ(0, block_of_flag(11));
  BlockCounts c;
  c.n = {2, 3, 0};
  EXPECT_EQ(308, block_info(8)->size(c, 1, 8, 10));
  EXPECT_EQ(316, block_info(8)->size(c, 1, 8, 60));
  EXPECT_EQ(544 * 4, block_info(2)->size(c, 4, 8, 60));
  c.n = {5, 0, 0};
  EXPECT_EQ(4 + 5 * (4 + 2 * 4 + 4), block_info(10)->size(c, 4, 4, 60));
  c.n = {-1, 0, 0};
  EXPECT_EQ(-1, block_info(7)->size(c, 1, 8, 60));
  c.n = {INT32_MAX, 0, 0};
  EXPECT_EQ(-1, block_info(26)->size(c, 1, 8, 60)) << "overflow is refused";
}

// Room for the two leading ints only: the coordinates fail, the masses do not (kept on purpose).
TEST(Catalogue, NodalMassesFailOnlyOnTheirLeadingInts) {
  for (bool masses : {false, true}) {
    unsigned char room[8];
    FileSlot io;
    io.file = fmemopen(room, sizeof room, "w");
    ASSERT_NE(io.file, nullptr);
    std::setvbuf(io.file, nullptr, _IONBF, 0);
    std::vector<float> scratch(512);
    BlockIo b{io, scratch};
    if (masses) EXPECT_TRUE(write_nodal_masses_block(b, {.ids = {7, 8}, .values = {1.0, 2.0}}));
    else EXPECT_FALSE(write_nodal_coords_block(b, {.ids = {7, 8}, .xyz = std::vector<double>(6, 1.0)}));
    close_stream(io);
  }
}

}  // namespace
