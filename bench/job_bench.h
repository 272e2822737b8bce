// Starting a job's worker and seeing its end, paired with a bare start and wait.
#pragma once

namespace kestrel::bench {

void jobs();
// How soon a job has its final state once its worker has ended, paired with a wait for the same process.
void ends();

} // namespace kestrel::bench
