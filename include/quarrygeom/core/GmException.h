#pragma once

#include <ostream>
#include <string>

#include <quarrygeom/core/GmExport.h>

// The exception type of the math layer (zero-length normalisation, unsupported fits).
class QUARRYMATH_API GmException {
public:
    explicit GmException(const char* message);
    explicit GmException(const std::string& message);
    GmException(const GmException& other);
    GmException& operator=(const GmException& other);
    virtual ~GmException();

    const std::string& getMessage() const;

private:
    std::string _message;
};

QUARRYMATH_API std::ostream& operator<<(std::ostream& os, const GmException& e);
