// Answers to a channel test: the message is inside the payload, and encoding it again gives an equal answer.
#include <vector>

#include "check.h"
#include "gxmod/frames.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  gxmod::TestResponse response;
  if (!gxmod::DecodeTestResponse(data, size, &response)) {
    Check(response.text == nullptr);
    return 0;
  }
  const auto* payload = reinterpret_cast<const char*>(data);
  Check(response.text >= payload && response.text + response.text_length <= payload + size);
  const std::string text(response.text, response.text_length);
  Check(text.find('\0') == std::string::npos);

  std::vector<char> built(gxmod::kTestRespondHeaderBytes + text.size());
  Check(gxmod::EncodeTestResponse(response.status, text.data(), static_cast<std::uint16_t>(text.size()),
                                  built.data()) == built.size());
  gxmod::TestResponse again;
  Check(gxmod::DecodeTestResponse(built.data(), built.size(), &again));
  Check(again.status == response.status && std::string(again.text, again.text_length) == text);
  return 0;
}
