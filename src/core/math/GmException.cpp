#include <quarrygeom/core/GmException.h>

GmException::GmException(const char* message) : _message(message ? message : "") {}
GmException::GmException(const std::string& message) : _message(message) {}
GmException::GmException(const GmException& other) = default;
GmException& GmException::operator=(const GmException& other) = default;
GmException::~GmException() = default;

const std::string& GmException::getMessage() const { return _message; }

std::ostream& operator<<(std::ostream& os, const GmException& e) {
    return os << "GmException: " << e.getMessage();
}
