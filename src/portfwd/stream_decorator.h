// Attaches a handler to a stream for as long as the stream lives.
#ifndef GX_PORTFWD_STREAM_DECORATOR_H
#define GX_PORTFWD_STREAM_DECORATOR_H

#include "portfwd/agg_ref.h"
#include "stream/ibase_stream.h"

// Handler: a class derived from IBaseStream::IBaseHandler and IReference, made from a stream.
// A reference on the handler is one on the stream too; the stream alone keeps the handler alive as well.
template <class Handler>
class StreamDecorator_T {
 public:
  // With a null stream the decorator stays empty.
  explicit StreamDecorator_T(IBaseStream* stream) {
    if (stream == nullptr) return;
    handler_ = CRefObj<CHandler>(new CHandler(stream));
    handler_->Install();
  }

  // Null when empty. Not counted.
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
