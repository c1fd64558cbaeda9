/* A number is printed and a text is freed of the blanks around it. */
#include <conf_misc.h>
#include <stdio.h>
#include <stdlib.h>

int main(void)
{
    char number[24];
    char *name = conf_strip("  eth0 \n");
    printf("%s has index %s\n", name != NULL ? name : "", conf_itoa(2, number, sizeof(number)));
    free(name);
    return 0;
}
