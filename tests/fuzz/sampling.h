// Whether every check is made for every input. Defined once for the fuzzers and once for the runs over the seeds.
#ifndef FUZZ_SAMPLING_H
#define FUZZ_SAMPLING_H

namespace fuzz {

extern const bool kEveryInput;

} // namespace fuzz

#endif
