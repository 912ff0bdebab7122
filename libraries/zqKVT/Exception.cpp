#include "KVT/Exception.h"

namespace KVT {

CSystemException::CSystemException(int error, const char* operation)
    : std::system_error(error, std::generic_category(), operation) {}

CSystemException::~CSystemException() = default;

}  // namespace KVT
