// SPDX-License-Identifier: Apache-2.0
// A plug-in with functions that compilers name in debug information in different ways.
namespace plugin {
namespace {

using function = void (*)();

int volatile sum;

struct item {
    static void count() { sum = sum + 1; }
};

void plain()
{
    sum = sum + 2;
}

function lambda_of_function()
{
    return [] { sum = sum + 3; };
}

} // namespace

extern "C" void plugin_run()
{
    sum = sum + 4;
}

} // namespace plugin

extern "C" const void *plugin_place(int index)
{
    using namespace plugin;
    const function places[] = {item::count, plain, lambda_of_function(), plugin_run};
    return reinterpret_cast<const void *>(places[index]);
}
