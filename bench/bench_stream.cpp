// Encode and decode throughput of a large real array: the bulk XDR path, the per-element
// xdr_vector path and a plain fwrite/fread of the same bytes.
#include <benchmark/benchmark.h>
#include <rpc/xdr.h>

#include <cstdio>
#include <vector>

#include "format/krxstream.h"

namespace {

constexpr std::size_t kValues = 1 << 21;  // 16 MiB of doubles

std::vector<double> &values() {
  static std::vector<double> v = [] {
    std::vector<double> x(kValues);
    for (std::size_t i = 0; i < kValues; ++i) x[i] = 1.0 / double(i + 1);
    return x;
  }();
  return v;
}

void set_bytes(benchmark::State &state) {
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kValues * sizeof(double)));
}

void BM_EncodeBulk(benchmark::State &state) {
  krx::FileSlot io;
  io.file = std::tmpfile();
  krx::bind_xdr_stream(io, XDR_ENCODE, "bench");
  for (auto _ : state) {
    std::rewind(io.file);
    benchmark::DoNotOptimize(krx::put_doubles(io, values().data(), kValues));
  }
  set_bytes(state);
  krx::close_stream(io);
}

void BM_EncodeXdrVector(benchmark::State &state) {
  FILE *f = std::tmpfile();
  XDR x;
  xdrstdio_create(&x, f, XDR_ENCODE);
  for (auto _ : state) {
    std::rewind(f);
    benchmark::DoNotOptimize(xdr_vector(&x, reinterpret_cast<char *>(values().data()), u_int(kValues),
                                        sizeof(double), xdrproc_t(xdr_double)));
  }
  set_bytes(state);
  xdr_destroy(&x);
  std::fclose(f);
}

void BM_EncodePlainFwrite(benchmark::State &state) {
  FILE *f = std::tmpfile();
  for (auto _ : state) {
    std::rewind(f);
    benchmark::DoNotOptimize(std::fwrite(values().data(), sizeof(double), kValues, f));
  }
  set_bytes(state);
  std::fclose(f);
}

// The same two encodes into /dev/null, where a write call copies nothing: what remains of the
// bulk encode is the byte swap and the chunking.
void BM_EncodeBulkToNull(benchmark::State &state) {
  krx::FileSlot io;
  io.file = std::fopen("/dev/null", "wb");
  krx::bind_xdr_stream(io, XDR_ENCODE, "bench");
  for (auto _ : state) benchmark::DoNotOptimize(krx::put_doubles(io, values().data(), kValues));
  set_bytes(state);
  krx::close_stream(io);
}

void BM_EncodePlainToNull(benchmark::State &state) {
  FILE *f = std::fopen("/dev/null", "wb");
  for (auto _ : state) benchmark::DoNotOptimize(std::fwrite(values().data(), sizeof(double), kValues, f));
  set_bytes(state);
  std::fclose(f);
}

FILE *filled_file() {
  FILE *f = std::tmpfile();
  std::fwrite(values().data(), sizeof(double), kValues, f);
  std::fflush(f);
  return f;
}

void BM_DecodeBulk(benchmark::State &state) {
  krx::FileSlot io;
  io.file = filled_file();
  krx::bind_xdr_stream(io, XDR_DECODE, "bench");
  std::vector<double> out(kValues);
  for (auto _ : state) {
    std::rewind(io.file);
    benchmark::DoNotOptimize(krx::get_doubles(io, out.data(), kValues));
  }
  set_bytes(state);
  krx::close_stream(io);
}

void BM_DecodeXdrVector(benchmark::State &state) {
  FILE *f = filled_file();
  XDR x;
  xdrstdio_create(&x, f, XDR_DECODE);
  std::vector<double> out(kValues);
  for (auto _ : state) {
    std::rewind(f);
    benchmark::DoNotOptimize(xdr_vector(&x, reinterpret_cast<char *>(out.data()), u_int(kValues),
                                        sizeof(double), xdrproc_t(xdr_double)));
  }
  set_bytes(state);
  xdr_destroy(&x);
  std::fclose(f);
}

void BM_DecodePlainFread(benchmark::State &state) {
  FILE *f = filled_file();
  std::vector<double> out(kValues);
  for (auto _ : state) {
    std::rewind(f);
    benchmark::DoNotOptimize(std::fread(out.data(), sizeof(double), kValues, f));
  }
  set_bytes(state);
  std::fclose(f);
}

BENCHMARK(BM_EncodeBulk)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EncodeXdrVector)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EncodePlainFwrite)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EncodeBulkToNull)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EncodePlainToNull)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DecodeBulk)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DecodeXdrVector)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DecodePlainFread)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
