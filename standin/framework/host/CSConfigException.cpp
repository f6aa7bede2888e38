#include "hostapi/CSConfigException.h"

#include <typeinfo>

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

}  // namespace Norvale_Plugin_Core
