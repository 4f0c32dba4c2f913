// main.cpp - runs one task of one client and prints its cost as a line of JSON.
//
//   bench_CLIENT TASK --port N [--file F] [--count N] [--size N] [--tls 1] [--keep FILE]
//
// The task "idle" does nothing: its cost is that of starting the program.

#include <sys/resource.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>

#include "task.h"

// Tells the heap counter, if it is preloaded, where the task begins and ends.
extern "C" {
__attribute__((weak)) void bench_heap_begin();
__attribute__((weak)) void bench_heap_end(unsigned long long* calls, unsigned long long* utl_calls,
                                          unsigned long long* peak);
// The instruction counter collects inside this function only.
__attribute__((noinline)) void bench_run_task(const bench::task* work, bench::receiver* out);
}

namespace bench {

void fail(const std::string& what) {
  std::fprintf(stderr, "%s\n", what.c_str());
  std::exit(1);
}

namespace {

double cpu_ms() {
  rusage use = {};
  getrusage(RUSAGE_SELF, &use);
  const auto ms = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
  };
  return ms(use.ru_utime) + ms(use.ru_stime);
}

// getrusage would report the parent's peak if that was greater.
long peak_kib() {
  std::ifstream status("/proc/self/status");
  std::string word;
  long value = 0;
  while (status >> word) {
    if (word == "VmHWM:" && status >> value) break;
  }
  return value;
}

void parse(int argc, char** argv, task& work, receiver& out) {
  if (argc < 2) fail("no task");
  work.name = argv[1];
  for (int i = 2; i + 1 < argc; i += 2) {
    const std::string name = argv[i];
    const char* value = argv[i + 1];
    if (name == "--port") work.port = static_cast<uint16_t>(std::atoi(value));
    if (name == "--file") work.file = value;
    if (name == "--count") work.count = std::atol(value);
    if (name == "--size") work.size = static_cast<size_t>(std::atol(value));
    if (name == "--tls") work.tls = std::strcmp(value, "1") == 0;
    if (name == "--keep") out.keep(std::fopen(value, "wb"));
  }
}

bool knows(const std::string& name) {
  if (name == "idle") return true;
  if (name == "send_big") return kClient.send_big != nullptr;
  if (name == "receive_big") return kClient.receive_big != nullptr;
  if (name == "send_small") return kClient.send_small != nullptr;
  if (name == "receive_small") return kClient.receive_small != nullptr;
  return false;
}

}  // namespace
}  // namespace bench

void bench_run_task(const bench::task* work, bench::receiver* out) {
  using bench::kClient;
  if (work->name == "send_big") kClient.send_big(*work);
  if (work->name == "receive_big") kClient.receive_big(*work, *out);
  if (work->name == "send_small") kClient.send_small(*work);
  if (work->name == "receive_small") kClient.receive_small(*work, *out);
}

int main(int argc, char** argv) {
  using clock = std::chrono::steady_clock;
  bench::task work;
  bench::receiver out;
  bench::parse(argc, argv, work, out);
  if (!bench::knows(work.name)) {
    std::printf("{\"unknown\": true}\n");
    return 0;
  }
  try {
    if (bench::kClient.prepare != nullptr && work.name != "idle") bench::kClient.prepare(work);
    if (bench_heap_begin) bench_heap_begin();
    const double cpu = bench::cpu_ms();
    const auto begin = clock::now();
    bench_run_task(&work, &out);
    const std::chrono::duration<double, std::milli> wall = clock::now() - begin;
    const double cpu_used = bench::cpu_ms() - cpu;
    unsigned long long calls = 0;
    unsigned long long utl_calls = 0;
    unsigned long long peak = 0;
    if (bench_heap_end) bench_heap_end(&calls, &utl_calls, &peak);
    std::printf(
        "{\"wall_ms\": %.4f, \"cpu_ms\": %.3f, \"peak_kib\": %ld, \"received\": %llu, "
        "\"allocations\": %llu, \"utl_allocations\": %llu, \"heap_peak\": %llu}\n",
        wall.count(), cpu_used, bench::peak_kib(), out.bytes(), calls, utl_calls, peak);
  } catch (const std::exception& cause) {
    bench::fail(cause.what());
  }
  return std::fflush(nullptr) == 0 ? 0 : 1;
}
