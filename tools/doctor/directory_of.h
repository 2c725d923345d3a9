// The directory part of a file's path, as the checks of written files name it.
#ifndef KSCDP_TOOLS_DOCTOR_DIRECTORY_OF_H_
#define KSCDP_TOOLS_DOCTOR_DIRECTORY_OF_H_

#include <string>

namespace doctor {

// The directory that holds `path`: "." for a bare name, "/" for one at the top.
inline std::string directoryOf(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace doctor

#endif  // KSCDP_TOOLS_DOCTOR_DIRECTORY_OF_H_
