// CSConfigException and CSNetworkException.

#include <typeinfo>

#include "hostapi/CSConfigException.h"
#include "hostapi/CSNetworkException.h"

namespace Norvale_Plugin_Core {

CSConfigException::CSConfigException(int code)
    : Poco::Exception(code == 0 ? "The service refused the authorisation" : "The configuration is not valid",
                      code) {}
CSConfigException::CSConfigException(const CSConfigException& other) = default;
CSConfigException::~CSConfigException() noexcept = default;
CSConfigException& CSConfigException::operator=(const CSConfigException& other) = default;

const char* CSConfigException::name() const noexcept {
    return "Configuration exception";
}
const char* CSConfigException::className() const noexcept {
    return typeid(*this).name();
}
Poco::Exception* CSConfigException::clone() const {
    return new CSConfigException(*this);
}
void CSConfigException::rethrow() const {
    throw *this;
}

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
