/* Records with the node as first member are linked, walked and released. */
#include <conf_dlq.h>
#include <stdio.h>
#include <stdlib.h>

struct job {
    conf_dlq_node_t node;
    int number;
};

int main(void)
{
    conf_dlq_list_t jobs;
    conf_dlq_init(&jobs);
    for (int i = 1; i <= 3; i++) {
        struct job *job = calloc(1, sizeof(*job));
        if (job == NULL)
            break;
        job->number = i;
        conf_dlq_append(&jobs, &job->node);
    }
    conf_dlq_node_t *node = conf_dlq_head(&jobs);
    for (; node != NULL; node = conf_dlq_next(&jobs, node))
        printf("job %d\n", ((struct job *)node)->number);
    conf_dlq_free(&jobs, free);
    return 0;
}
