// Input that cannot be used.
#ifndef KAVEL_COMMON_INPUT_ERROR_H
#define KAVEL_COMMON_INPUT_ERROR_H

#include <stdexcept>

namespace kavel {

// The text says in one line what is wrong with the input and where. It does not name the file.
class InputError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

} // namespace kavel

#endif
