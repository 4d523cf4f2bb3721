#include "stream/ibase_stream.h"

#include <cerrno>

namespace {

// Returns the facet's answer, or the default value without a facet.
template <class Result, class Facet, class... Args>
Result Ask(Facet* facet, Result (Facet::*operation)(Args...), Args... args) {
  return facet != nullptr ? (facet->*operation)(args...) : Result{};
}

template <class Result, class Facet>
Result Ask(const Facet* facet, Result (Facet::*operation)() const) {
  return facet != nullptr ? (facet->*operation)() : Result{};
}

// The stream's accessors are not const, because they return facets that can change the stream.
IBaseStream* Facets(const IBaseStream* stream) { return const_cast<IBaseStream*>(stream); }

}  // namespace

bool IBaseStream::IBaseHandler::Handle(CRefObj<IBaseStream>, NotifyType, CRefObj<IBuffer>) { return false; }

unsigned IBaseStream::IStatusImpl::ErrnoToTarnErrorCode(unsigned int error) {
  switch (error) {
    case EAGAIN:
      return kStreamAgain;
    case EHOSTDOWN:
    case EHOSTUNREACH:
      return kStreamTimeout;
    case ETIMEDOUT:
      return kStreamTimedOut;
    case ECONNRESET:
      return kStreamConnReset;
    default:
      return kStreamOtherError;
  }
}

unsigned long IBaseStream::Write(_WRITE_BUF* list, unsigned long count, unsigned long timeout_ms) {
  return Ask<unsigned long>(IOOperatorImpl(), &IIOOperatorImpl::Write_impl, list, count, timeout_ms);
}

unsigned long IBaseStream::Write(IBuffer* buffer, unsigned long length, unsigned long timeout_ms) {
  return Ask<unsigned long>(IOOperatorImpl(), &IIOOperatorImpl::Write_impl, buffer, length, timeout_ms);
}

unsigned long IBaseStream::Read(IBuffer* buffer, unsigned long length, unsigned long timeout_ms) {
  return Ask(IOOperatorImpl(), &IIOOperatorImpl::Read_impl, buffer, length, timeout_ms);
}

unsigned long IBaseStream::Peek(IBuffer* buffer, unsigned long length, unsigned long timeout_ms) {
  return Ask(IOOperatorImpl(), &IIOOperatorImpl::Peek_impl, buffer, length, timeout_ms);
}

bool IBaseStream::Disconnect(unsigned int reason) {
  return Ask(IOOperatorImpl(), &IIOOperatorImpl::Disconnect_impl, reason);
}

void* IBaseStream::SetUserData(void* data) {
  return Ask(UserDataImpl(), &IUserDataImpl::SetUserData_impl, data);
}

void* IBaseStream::GetUserData() const {
  return Ask(Facets(this)->UserDataImpl(), &IUserDataImpl::GetUserData_impl);
}

void IBaseStream::SetReceiveNonAck(bool) {}

bool IBaseStream::IsConnect() const { return Ask(Facets(this)->StatusImpl(), &IStatusImpl::IsConnect_impl); }

bool IBaseStream::IsClosed() const { return Ask(Facets(this)->StatusImpl(), &IStatusImpl::IsClosed_impl); }

bool IBaseStream::HadConnected() const {
  return Ask(Facets(this)->StatusImpl(), &IStatusImpl::HadConnected_impl);
}

IBaseStream::StreamType IBaseStream::GetStreamType() const {
  return Ask(Facets(this)->StatusImpl(), &IStatusImpl::GetStreamType_impl);
}

const char* IBaseStream::GetStreamName() const {
  return Ask(Facets(this)->StatusImpl(), &IStatusImpl::GetStreamName_impl);
}

const char* IBaseStream::GetPeerName() const {
  return Ask(Facets(this)->StatusImpl(), &IStatusImpl::GetPeerName_impl);
}

bool IBaseStream::AddProperty(IReference* property) {
  return Ask(PropertyListImpl(), &IPropertyList_Impl::AddProperty, property);
}

bool IBaseStream::DelProperty(IReference* property) {
  return Ask(PropertyListImpl(), &IPropertyList_Impl::DelProperty, property);
}

bool IBaseStream::DeleteAll() { return Ask(PropertyListImpl(), &IPropertyList_Impl::DeleteAll); }

IBaseStream::IBaseHandler* IBaseStream::Handler() const {
  return Ask<IBaseHandler*>(Facets(this)->HandlerImpl(), &IHandlerImpl::Handler_impl);
}

IBaseStream::IBaseHandler* IBaseStream::Handler(IBaseHandler* handler) {
  return Ask<IBaseHandler*>(HandlerImpl(), &IHandlerImpl::Handler_impl, handler);
}
