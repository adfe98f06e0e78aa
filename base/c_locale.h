// Keeps the point in the numbers of files and messages, whatever locale a library puts the process
// into.
#ifndef QUILMRUN_BASE_C_LOCALE_H_
#define QUILMRUN_BASE_C_LOCALE_H_

#include <locale.h>

namespace quilmrun {

/// Makes printf() and strtof() follow the C locale in this thread, as long as the object lives.
/// Needs no memory.
class CLocale {
 public:
  CLocale() : previous_(uselocale(newlocale(LC_ALL_MASK, "C", nullptr))) {}
  ~CLocale() { uselocale(previous_); }
  CLocale(const CLocale&) = delete;
  CLocale& operator=(const CLocale&) = delete;

 private:
  locale_t previous_;
};

}  // namespace quilmrun

#endif  // QUILMRUN_BASE_C_LOCALE_H_
