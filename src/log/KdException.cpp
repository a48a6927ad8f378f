#include "log/KdException.h"

#include <cstdlib>
#include <typeinfo>

#include <cxxabi.h>

#include "log/KdLog.h"

std::string KdException::logException(std::string_view name, std::string_view reason,
                                      const char* method) {
  std::string text = kd::format("Exception in %s. %@ - %@.", method, name, reason);
  KdLog::appendLogAndPrint(text);
  return text;
}

std::string KdException::logException(const std::exception& e, const char* method) {
  return logException(nameOf(e), e.what(), method);
}

bool KdException::didTimeout(std::string_view name) {
  return name == kPortTimeoutName;
}

bool KdException::didTimeout(const std::exception& e) {
  return didTimeout(nameOf(e));
}

std::string KdException::nameOf(const std::exception& e) {
  if (const auto* named = dynamic_cast<const KdNamedException*>(&e)) return named->name();
  const char* mangled = typeid(e).name();
  int status = 0;
  char* demangled = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
  std::string name = status == 0 && demangled ? demangled : mangled;
  std::free(demangled);
  return name;
}
