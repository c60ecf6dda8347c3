// SPDX-License-Identifier: Apache-2.0
// A plug-in with thread-local data and functions of all sizes, whose constructor calls back into the program.
extern "C" {

[[gnu::weak]] void plugin_constructor_hook();

thread_local int plugin_thread_data[64] = {1};
int plugin_data[4] = {1, 2, 3, 4};

int plugin_function(int value)
{
    plugin_thread_data[value % 64]++;
    return plugin_data[value % 4];
}

int plugin_long_function(int value)
{
    for (int i = 0; i < value; i++)
        value = value * 31 + plugin_function(i);
    return value;
}
}

namespace {

[[gnu::constructor]] void construct()
{
    if (plugin_constructor_hook != nullptr)
        plugin_constructor_hook();
}

} // namespace
