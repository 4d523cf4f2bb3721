// Stands in for name_cache.cc in the static program, which carries no library for the file.
#include "peer/name_cache.h"

namespace gxtool {

const bool kHasNameCache = false;

AnswerCache OpenNameCache(const NameCacheOptions& /*options*/) { return {}; }

}  // namespace gxtool
