// SPDX-License-Identifier: Apache-2.0
// A module that differs from its twin in the size of one stack frame only. The frame is full of what looks like return
// addresses.
extern "C" void call_through(void (*function)(void *), void *argument)
{
    void *volatile frame[FRAME];
    for (void *volatile &word : frame)
        word = reinterpret_cast<char *>(call_through) + 1;
    function(argument);
    frame[0] = frame[FRAME - 1];
}
