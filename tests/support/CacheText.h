// CacheText.h: stanza file text into a cache and out of it, in memory.
#ifndef TESTS_SUPPORT_CACHETEXT_H
#define TESTS_SUPPORT_CACHETEXT_H

#include <string>

#include "Z/ZSCFData.h"

/// Reads the text on top of what the cache holds. 0, or the line that was refused.
int readText(ZSCFData& cache, const std::string& text, bool keepComments = true);

/// What a store would write.
std::string writtenText(ZSCFData& cache);

/// What the side database would hold, expanded; empty if there would be none.
std::string sideRecords(ZSCFData& cache);

/// What a side database of these records is.
std::string compressed(const std::string& records);

#endif
