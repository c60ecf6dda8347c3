// SPDX-License-Identifier: Apache-2.0
// sampler.h - the daemon's work: every period a sample of the next client.
#ifndef SAMPLED_SAMPLER_H
#define SAMPLED_SAMPLER_H

namespace sampled {

void sampler_start(double period, unsigned clients);
void sampler_crash_after(double seconds);
void sampler_finish();

} // namespace sampled

#endif
