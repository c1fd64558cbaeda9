/* A path in the form of the database. */
#include <conf_plugin.h>
#include <stdio.h>
#include <stdlib.h>

int main(void)
{
    char *path = plugin_path_std2db("/mod-a:top/item[name='x']/leaf");
    const int result = path != NULL ? puts(path) : -1;
    free(path);
    return result < 0;
}
