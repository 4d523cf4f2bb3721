// Frames, buffers and reference counts: operations that every block of data needs.
#include <array>

#include "measure.h"
#include "object/creference.h"
#include "portfwd/fill_buffer.h"
#include "stream/mem_buffer.h"

namespace {

using gxbench::Measure;
using gxbench::MeasureAt;

std::array<unsigned char, 4096> payload{};

void BuildFrame(benchmark::State& state) {
  const auto length = static_cast<std::size_t>(state.range(0));
  std::array<unsigned char, gxmod::kFrameHeaderBytes + payload.size()> frame;
  MeasureAt(state, "build_frame", [&] {
    benchmark::DoNotOptimize(FillBuffer(7, gxmod::ConnectionType::Data, payload.data(), frame.data(), length));
  });
}
BENCHMARK(BuildFrame)->Arg(64)->Arg(4096);

void ParseFrameHeader(benchmark::State& state) {
  std::array<unsigned char, gxmod::kFrameHeaderBytes> header;
  gxmod::EncodeFrameHeader({4096, 7, gxmod::ConnectionType::Data}, header.data());
  Measure(state, "parse_frame_header",
          [&] { benchmark::DoNotOptimize(gxmod::DecodeFrameHeader(header.data())); });
}
BENCHMARK(ParseFrameHeader);

void NewBuffer(benchmark::State& state) {
  Measure(state, "new_buffer",
          [] { benchmark::DoNotOptimize(g_pMemAlloctor->GetFreeBuffer(payload.size()).get()); });
}
BENCHMARK(NewBuffer);

void CopyIntoBuffer(benchmark::State& state) {
  Measure(state, "copy_into_buffer",
          [] { benchmark::DoNotOptimize(cpy2buf(payload.data(), payload.size()).get()); });
}
BENCHMARK(CopyIntoBuffer);

class Counted final : public CReference {
  ~Counted() override = default;
};

void AddRefAndRelease(benchmark::State& state) {
  const CRefObj<IReference> object = new Counted;
  Measure(state, "addref_and_release", [&] { benchmark::DoNotOptimize(CRefObj<IReference>(object).get()); });
}
BENCHMARK(AddRefAndRelease);

}  // namespace
