// A read and a write of a stream, without the system's part.
#include "stream/base_stream.h"

#include "measure.h"
#include "stream/mem_buffer.h"

namespace {

constexpr unsigned long kBlockBytes = 4096;

// Takes all bytes at once, and always has more to read.
class NullStream final : public CBaseStream {
 public:
  NullStream() : CBaseStream(/*type=*/0, /*connected=*/true) {}

  bool read(char*, long length, long& count, long) override { return Move(length, count); }
  bool peek(char*, long length, long& count, long) override { return Move(length, count); }
  bool write(const char*, long length, long& count, long, long) override { return Move(length, count); }
  bool read_done(IBuffer*, unsigned long) override { return true; }
  bool write_done(IBuffer*, unsigned long) override { return true; }

 private:
  ~NullStream() override = default;
  static bool Move(long length, long& count) {
    count = length;
    return true;
  }
};

void StreamRead(benchmark::State& state) {
  const CRefObj<IBaseStream> stream = new NullStream;
  const CRefObj<IBuffer> buffer = g_pMemAlloctor->GetFreeBuffer(kBlockBytes);
  gxbench::Measure(state, "stream_read", [&] {
    buffer->SetSize(0);
    benchmark::DoNotOptimize(stream->Read(buffer.get(), kBlockBytes, kNoTimeout));
  });
}
BENCHMARK(StreamRead);

void StreamWrite(benchmark::State& state) {
  const CRefObj<IBaseStream> stream = new NullStream;
  const CRefObj<IBuffer> buffer = g_pMemAlloctor->GetFreeBuffer(kBlockBytes);
  buffer->SetSize(kBlockBytes);
  gxbench::Measure(state, "stream_write",
                   [&] { benchmark::DoNotOptimize(stream->Write(buffer.get(), kBlockBytes, kNoTimeout)); });
}
BENCHMARK(StreamWrite);

}  // namespace
