// The report of an analysis, for the service and for people.
#pragma once

#include "Analysis.h"

#include <string>

namespace kestrel::flowscope {

// XML as the service reads it; what is there beyond that has element names of its own.
std::string xmlReport(const Analysis& analysis, const std::string& file);
// One page without any reference to elsewhere: verdict, properties, plots.
std::string htmlReport(const Analysis& analysis, const std::string& file);

} // namespace kestrel::flowscope
