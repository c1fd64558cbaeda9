/* A text grows at both ends, and is wiped in the end. */
#include <conf_buffer.h>
#include <stdio.h>

int main(void)
{
    conf_buffer_t *text = conf_buffer_create(0);
    char hello[] = "hello", greeting[] = "he said: ";
    int result = -1;
    if (text != NULL && conf_buffer_append(&text, hello, 5) == 0 &&
        conf_buffer_insert(&text, 0, greeting, 9) == 0)
        result = puts(conf_buffer_data(text));
    conf_buffer_destroy(text);
    return result < 0;
}
