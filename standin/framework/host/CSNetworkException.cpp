#include "hostapi/CSNetworkException.h"

#include <typeinfo>

namespace Norvale_Plugin_Core {

CSNetworkException::CSNetworkException(const std::string& message, int code)
    : Poco::Exception(message, code) {}
CSNetworkException::CSNetworkException(const CSNetworkException& other) = default;
CSNetworkException::~CSNetworkException() noexcept = default;
CSNetworkException& CSNetworkException::operator=(const CSNetworkException& other) = default;

const char* CSNetworkException::name() const noexcept {
    return "Network exception";
}
const char* CSNetworkException::className() const noexcept {
    return typeid(*this).name();
}
Poco::Exception* CSNetworkException::clone() const {
    return new CSNetworkException(*this);
}
void CSNetworkException::rethrow() const {
    throw *this;
}

}  // namespace Norvale_Plugin_Core
