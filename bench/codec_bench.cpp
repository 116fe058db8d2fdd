// Encoding and decoding of an event message with two session records (a
// withdrawing record and the current one), as every logon, keep-alive and
// address change sends it. Reports the time and the heap allocations per
// iteration: the allocator of this binary counts every malloc, calloc,
// realloc and operator new. Ends with one line: encode + decode with
// non-ASCII texts against the same with ASCII texts (CPU time, medians of
// three runs each).
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "bench/closing_line.h"
#include "protocol/wire/decoder.h"
#include "protocol/wire/encoder.h"

// --- counting allocator ----------------------------------------------------------

namespace {
std::atomic<uint64_t> g_allocations{0};
void Count() { g_allocations.fetch_add(1, std::memory_order_relaxed); }
}  // namespace

extern "C" {
// glibc's own entry points, under the names it exports for this purpose.
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void __libc_free(void* block);

void* malloc(size_t size) {
  Count();
  return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
  Count();
  return __libc_calloc(count, size);
}
void* realloc(void* block, size_t size) {
  Count();
  return __libc_realloc(block, size);
}
void free(void* block) { __libc_free(block); }
}

void* operator new(size_t size) {
  Count();
  if (void* p = __libc_malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
void* operator new[](size_t size) { return operator new(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  Count();
  return __libc_malloc(size ? size : 1);
}
void* operator new[](size_t size, const std::nothrow_t& tag) noexcept {
  return operator new(size, tag);
}
void operator delete(void* p) noexcept { __libc_free(p); }
void operator delete[](void* p) noexcept { __libc_free(p); }
void operator delete(void* p, size_t) noexcept { __libc_free(p); }
void operator delete[](void* p, size_t) noexcept { __libc_free(p); }

// --- the message -------------------------------------------------------------------

namespace {

using namespace lindqvar;

struct Identity {
  std::string domain, user, workstation, deviceUuid, serial, tenant;
};

const Identity kAscii = {"corp",
                         "alice.andersson",
                         "ws-0142.corp.example.com",
                         "6f1c2a9e-3b4d-4e8f-9a01-b2c3d4e5f607",
                         "vrx-serial-000731",
                         "72f988bf-86f1-41af-91ab-2d7cd011db47"};
const Identity kNonAscii = {"k\xC3\xB6rp",
                            "\xC3\xA5sa.m\xC3\xBCller",
                            "ws-0142.k\xC3\xB6rp.example.com",
                            "6f1c2a9e-3b4d-4e8f-9a01-b2c3d4e5f607",
                            "vrx-serial-000731",
                            "72f988bf-86f1-41af-91ab-2d7cd011db47"};

void AddRecord(CEncoder& e, const Identity& id, uint32_t logon, uint32_t firstIPv4) {
  e.begin_group(MSG_SESSION_INFO);
  e.add_u32(ATTR_LOGON, logon);
  e.add_u32(ATTR_FIXED_VALUE, 4096);
  e.add_string(ATTR_DOMAIN, id.domain, 1);
  e.add_string(ATTR_USER, id.user, 1);
  e.add_string(ATTR_WORKSTATION, id.workstation, 1);
  e.add_string(ATTR_DEVICE_UUID, id.deviceUuid, 1);
  e.add_string(ATTR_VRX_SERIAL, id.serial, 1);
  e.add_string(ATTR_TENANT_ID, id.tenant, 1);
  e.add_u32(ATTR_IPV4, firstIPv4);
  e.add_u32(ATTR_IPV4, firstIPv4 + 0x01000000);
  static const uint8_t ipv6[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x42};
  e.add_bytes(ATTR_IPV6, ipv6, sizeof ipv6);
  e.add_u32(ATTR_TIME, 1700000000);
  e.end_group(MSG_SESSION_INFO);
}

void BuildEvent(CEncoder& e, const Identity& id) {
  e.begin_message(MSG_EVENT);
  AddRecord(e, id, 0, 0x0100000A);  // the previous addresses, withdrawn
  AddRecord(e, id, 1, 0x0500000A);  // the current ones
  e.end_group(MSG_EVENT);
}

// Reads the message as a server-side reader does: into a fresh buffer, then
// a walk over every attribute.
uint32_t DecodeEvent(const uint8_t* message, uint32_t length) {
  CDecoder d;
  uint8_t* buffer = d.allocate(length);
  std::memcpy(buffer, message, length);
  uint32_t sum = 0;
  while (d.next()) {
    if (d.Type() == TYPE_U32) sum += d.ValueU32();
    if (d.Type() == TYPE_STRING || d.Type() == TYPE_BYTES) sum += d.ValueSize();
  }
  return sum;
}

void ReportAllocations(benchmark::State& state, uint64_t before) {
  state.counters["allocs"] = benchmark::Counter(static_cast<double>(g_allocations.load() - before),
                                                benchmark::Counter::kAvgIterations);
}

void BM_EncodeDecodeEvent(benchmark::State& state, const Identity& id) {
  const uint64_t before = g_allocations.load();
  uint32_t bytes = 0;
  for (auto _ : state) {
    CEncoder e(kEventEncoderCapacity);
    BuildEvent(e, id);
    const uint8_t* message = e.get_buffer(&bytes);
    benchmark::DoNotOptimize(DecodeEvent(message, bytes));
  }
  ReportAllocations(state, before);
  state.counters["bytes"] = bytes;
}

void BM_EncodeEvent(benchmark::State& state, const Identity& id) {
  const uint64_t before = g_allocations.load();
  for (auto _ : state) {
    CEncoder e(kEventEncoderCapacity);
    BuildEvent(e, id);
    uint32_t bytes = 0;
    benchmark::DoNotOptimize(e.get_buffer(&bytes));
  }
  ReportAllocations(state, before);
}

void BM_DecodeEvent(benchmark::State& state) {
  CEncoder e(kEventEncoderCapacity);
  BuildEvent(e, kAscii);
  uint32_t bytes = 0;
  const uint8_t* message = e.get_buffer(&bytes);
  const uint64_t before = g_allocations.load();
  for (auto _ : state) benchmark::DoNotOptimize(DecodeEvent(message, bytes));
  ReportAllocations(state, before);
}

}  // namespace

BENCHMARK_CAPTURE(BM_EncodeDecodeEvent, ascii, kAscii)->Repetitions(3);
BENCHMARK_CAPTURE(BM_EncodeDecodeEvent, non_ascii, kNonAscii)->Repetitions(3);
BENCHMARK_CAPTURE(BM_EncodeEvent, ascii, kAscii);
BENCHMARK_CAPTURE(BM_EncodeEvent, non_ascii, kNonAscii);
BENCHMARK(BM_DecodeEvent);

int main(int argc, char** argv) {
  using namespace lindqvar::bench;
  CRecordingReporter reporter;
  if (const int rc = RunBenchmarks(argc, argv, reporter)) return rc;
  const std::string ascii = "BM_EncodeDecodeEvent/ascii";
  const std::string nonAscii = "BM_EncodeDecodeEvent/non_ascii";
  // CPU time: the codec never waits, and the real time of a loaded
  // machine would compare the load rather than the code.
  const double figure = reporter.CpuNanoseconds(nonAscii);
  const double anchor = reporter.CpuNanoseconds(ascii);
  PrintClosingLine("codec_bench", figure, anchor,
                   Format("encode + decode of a two-record event, non-ASCII texts %.0f ns CPU and "
                          "%.0f allocations, "
                          "ASCII texts %.0f ns CPU and %.0f allocations (medians of %zu runs)",
                          figure, reporter.Counter(nonAscii, "allocs"), anchor,
                          reporter.Counter(ascii, "allocs"), reporter.Repetitions(nonAscii)),
                   "<= 1.3 and <= 2 allocations");
  return 0;
}
