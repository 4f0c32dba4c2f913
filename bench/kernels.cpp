// kernels.cpp - measures the library's loops through the exported interface.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <string>

#include "mail_text.h"
#include "quorvelmida/tav_eml_mlutl_mail_hash.h"
#include "quorvelmida/tav_eml_mlutl_mime_utility.h"
#include "quorvelmida/tav_eml_mlutl_receive.h"
#include "quorvelmida/tav_eml_smtp_command.h"
#include "tav_netsock.h"
#include "utl_os.h"

using namespace quorvelmida;

// Replaces the port's function: drops the data, so that only the library's own work is measured.
int32_t tav_netsock_send_timeo(int32_t, const void* data, int32_t len, int32_t, int32_t) noexcept {
  benchmark::DoNotOptimize(data);
  return len;
}

namespace {

constexpr int kLine = 76;

struct utl_free {
  void operator()(void* block) const { UtlOS::MemFree(block); }
};
template <typename T>
using utl_block = std::unique_ptr<T, utl_free>;

std::string random_bytes(size_t size) {
  std::string bytes;
  uint64_t state = 8;
  while (bytes.size() < size) {
    state = state * 6364136223846793005U + 1442695040888963407U;
    bytes += static_cast<char>(state >> 56);
  }
  return bytes;
}

void set_rate(benchmark::State& state, size_t bytes) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(bytes));
}

std::string encoded(const std::string& bytes) {
  char* text = nullptr;
  long length = 0;
  tav_eml_mlutl_mime_utility::to_b64(bytes.data(), static_cast<long>(bytes.size()), text, length,
                                     kLine);
  const utl_block<char> owner(text);
  return {text, static_cast<size_t>(length)};
}

void base64_encode(benchmark::State& state) {
  const std::string bytes = random_bytes(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    char* text = nullptr;
    long length = 0;
    tav_eml_mlutl_mime_utility::to_b64(bytes.data(), static_cast<long>(bytes.size()), text, length,
                                       64);
    const utl_block<char> owner(text);
    benchmark::DoNotOptimize(text);
  }
  set_rate(state, bytes.size());
}
BENCHMARK(base64_encode)->Arg(48)->Arg(3072)->Arg(49152);

void base64_decode(benchmark::State& state) {
  const std::string text = encoded(random_bytes(static_cast<size_t>(state.range(0))));
  for (auto _ : state) {
    void* bytes = nullptr;
    long length = 0;
    tav_eml_mlutl_mime_utility::from_b64(text.data(), static_cast<long>(text.size()), bytes,
                                         length);
    const utl_block<void> owner(bytes);
    benchmark::DoNotOptimize(bytes);
  }
  set_rate(state, text.size());
}
BENCHMARK(base64_decode)->Arg(57)->Arg(2964)->Arg(49152);

void quoted_printable_decode(benchmark::State& state) {
  std::string text;
  for (int i = 0; i < 55; ++i) {
    text += "=E3=81=8A=E4=B8=96=E8=A9=B1 and thirty characters as they are=\r\n";
  }
  for (auto _ : state) {
    void* bytes = nullptr;
    long length = 0;
    tav_eml_mlutl_mime_utility::from_qp(text.data(), static_cast<long>(text.size()), bytes, length);
    const utl_block<void> owner(bytes);
    benchmark::DoNotOptimize(bytes);
  }
  set_rate(state, text.size());
}
BENCHMARK(quoted_printable_decode);

void read_lines(benchmark::State& state) {
  const std::string text = bench::mail_text(4000);
  tav_eml_mlutl_receive receive;
  tav_eml_mlutl_receive& lines = receive;
  TAV_EML_TLS_INFO tls{};
  UtlString line;
  for (auto _ : state) {
    lines.set_recv_buffer(text.c_str());
    long length = 0;
    int sock = 0;
    for (size_t at = 0; at < text.size(); at += static_cast<size_t>(length)) {
      if (lines.ReadLine(1, sock, line, length, tls) != TAV_EML_UTL_OK || length < 1) {
        state.SkipWithError("no line");
        break;
      }
    }
  }
  set_rate(state, text.size());
}
BENCHMARK(read_lines);

// Lines that begin with a dot: none, or all.
void send_lines(benchmark::State& state) {
  const bool has_dots = state.range(0) != 0;
  std::string text = bench::mail_text(64 * 1024);
  if (has_dots) {
    for (size_t feed = 0; (feed = text.find('\n', feed)) + 1 < text.size(); ++feed) {
      text[feed + 1] = '.';
    }
  }
  _tav_eml_smtp_setting record;
  const tav_eml_smtp_settings settings(record);
  ntssmtp_fileptr session = {};
  session.sock = 1 << 20;
  tav_eml_smtp_command command;
  for (auto _ : state) {
    const TAV_EML_RESULT result = command.tav_eml_smtp_send_data(
        &settings, text.data(), static_cast<int>(text.size()), &session);
    if (result != TAV_EML_OK) state.SkipWithError("send");
  }
  set_rate(state, text.size());
}
BENCHMARK(send_lines)->ArgName("dots")->Arg(0)->Arg(1);

void md5(benchmark::State& state) {
  const std::string bytes = random_bytes(static_cast<size_t>(state.range(0)));
  tav_eml_mlutl_mail_hash hash;
  unsigned long digest[4];
  for (auto _ : state) {
    hash.GetMD5Digest(bytes.data(), static_cast<unsigned long>(bytes.size()), digest);
    benchmark::DoNotOptimize(digest);
  }
  set_rate(state, bytes.size());
}
BENCHMARK(md5)->Arg(64)->Arg(4096);

}  // namespace
