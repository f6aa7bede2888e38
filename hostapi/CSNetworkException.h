// The host's exception for network failures.

#ifndef HOSTAPI_CSNETWORKEXCEPTION_H
#define HOSTAPI_CSNETWORKEXCEPTION_H

#include <Poco/Exception.h>

#include <string>

namespace Norvale_Plugin_Core {

/// A network failure, for example an answer with a status other than 200.
class CSNetworkException : public Poco::Exception {
public:
    /// message says what failed; code is the host's number for it, 0 when there is none.
    CSNetworkException(const std::string& message, int code);
    CSNetworkException(const CSNetworkException& other);
    ~CSNetworkException() noexcept override;
    CSNetworkException& operator=(const CSNetworkException& other);

    const char* name() const noexcept override;
    const char* className() const noexcept override;
    Poco::Exception* clone() const override;
    void rethrow() const override;
};

}  // namespace Norvale_Plugin_Core

#endif
