#include "curl_global.h"

namespace standin {

CURLcode ensureCurlGlobalInit() {
  // A function-local static is initialised once, under the runtime's lock.
  static const CURLcode result = curl_global_init(CURL_GLOBAL_DEFAULT);
  return result;
}

}  // namespace standin
