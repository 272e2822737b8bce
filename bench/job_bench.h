// Starting a job's worker and seeing its end, paired with a bare start and wait.
#pragma once

namespace kestrel::bench {

void jobs();

} // namespace kestrel::bench
