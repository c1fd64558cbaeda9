/* An index stays that of its element; a free one is used again. */
#include <conf_vec.h>

int main(void)
{
    int first = 1, second = 2, third = 3;
    conf_vec_t *numbers = conf_vector_create(2);
    const int index = conf_vector_add(&numbers, &first);
    conf_vector_add(&numbers, &second);
    conf_vector_remove(numbers, (u32_t)index);
    const int again = conf_vector_add(&numbers, &third);
    conf_vector_destroy(numbers, NULL);
    return index < 0 || again != index;
}
