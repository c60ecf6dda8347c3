/* SPDX-License-Identifier: Apache-2.0 */
/* A plug-in with thread-local storage. */
_Thread_local char plugin_storage[200];

char *plugin_storage_of_this_thread(void)
{
    return plugin_storage;
}
