/* Counts are kept under names. The value may lie at any alignment, so it is copied out. */
#include <conf_hash.h>
#include <string.h>

int main(void)
{
    conf_hash_tbl_t *counts = conf_hash_create(16);
    char name[] = "eth0";
    long packets = 17, read = 0;
    if (counts != NULL && conf_hash_add(counts, name, &packets, sizeof(packets)) == 0) {
        memcpy(&read, conf_hash_get(counts, name), sizeof(read));
        conf_hash_del(counts, name); /* the table does not delete its entries */
    }
    conf_hash_destroy(counts);
    return read != 17;
}
