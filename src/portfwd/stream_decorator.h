// Attaches a handler to a stream for the stream's lifetime.
#ifndef GX_PORTFWD_STREAM_DECORATOR_H
#define GX_PORTFWD_STREAM_DECORATOR_H

#include "portfwd/agg_ref.h"
#include "stream/ibase_stream.h"

// Handler: a class derived from IBaseStream::IBaseHandler and IReference, constructed from a stream. A
// reference to the handler is also a reference to the stream, and the stream keeps the handler alive.
template <class Handler>
class StreamDecorator_T {
 public:
  // A null stream leaves the decorator empty.
  explicit StreamDecorator_T(IBaseStream* stream) {
    if (stream == nullptr) return;
    handler_ = CRefObj<CHandler>(new CHandler(stream));
    handler_->Install();
  }

  // Null when empty. Borrowed.
  Handler* handler() const { return handler_.get(); }

 private:
  class CHandler final : public CAggRef_T<::IReference>, public Handler {
   public:
    explicit CHandler(IBaseStream* stream)
        : CAggRef_T<::IReference>(stream), Handler(stream), stream_(stream) {}

    std::int64_t AddRef() override { return CAggRef_T<::IReference>::AddRef(); }
    std::int64_t Release() override { return CAggRef_T<::IReference>::Release(); }

    void Install() {
      stream_->AddProperty(this->InternalReference());
      stream_->Handler(this);
    }

   private:
    IBaseStream* const stream_;
  };

  CRefObj<CHandler> handler_;
};

#endif  // GX_PORTFWD_STREAM_DECORATOR_H
