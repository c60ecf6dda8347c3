// SPDX-License-Identifier: Apache-2.0
// A library that grew by minor releases: `exports` has the symbol versions.
void first(void);
void second(void);
void third(void);
void unversioned(void);

void first(void) {}

void second(void) {}

void third(void) {}

void unversioned(void) {}
