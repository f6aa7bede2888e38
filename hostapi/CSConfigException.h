// The host's exception for authorisation and configuration failures.

#ifndef HOSTAPI_CSCONFIGEXCEPTION_H
#define HOSTAPI_CSCONFIGEXCEPTION_H

#include <Poco/Exception.h>

namespace Norvale_Plugin_Core {

/// An authorisation or configuration failure, for example a refused token. The host takes it for
/// catastrophic: once one has been recorded the run stops at its next checkpoint.
class CSConfigException : public Poco::Exception {
public:
    /// code: 0 for a refused authorisation.
    explicit CSConfigException(int code);
    CSConfigException(const CSConfigException& other);
    ~CSConfigException() noexcept override;
    CSConfigException& operator=(const CSConfigException& other);

    const char* name() const noexcept override;
    const char* className() const noexcept override;
    Poco::Exception* clone() const override;
    void rethrow() const override;
};

}  // namespace Norvale_Plugin_Core

#endif
