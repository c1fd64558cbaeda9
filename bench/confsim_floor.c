/* What libxml2 or libyang alone take to read a file, and to print what it has, in seconds:
 *
 *     confsim_floor xml FILE
 *     confsim_floor yang FILE MODULE
 */
#include <libxml/parser.h>
#include <libyang/libyang.h>

#include <stdio.h>
#include <string.h>
#include <time.h>

static double now(void)
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (double)time.tv_sec + 1e-9 * (double)time.tv_nsec;
}

static int by_libxml2(const char *file)
{
    const double begin = now();
    xmlDoc *doc = xmlReadFile(file, NULL, XML_PARSE_NOBLANKS | XML_PARSE_HUGE);
    const double read = now();
    xmlChar *text = NULL;
    int size = 0;
    xmlDocDumpFormatMemory(doc, &text, &size, 1);
    printf("%.6f %.6f\n", read - begin, now() - read);
    xmlFree(text);
    xmlFreeDoc(doc);
    return size > 0 ? 0 : 1;
}

static int by_libyang(const char *file, const char *module)
{
    struct ly_ctx *context = NULL;
    struct ly_in *input = NULL;
    struct lyd_node *tree = NULL;
    char *text = NULL;
    if (ly_ctx_new(NULL, LY_CTX_NO_YANGLIBRARY, &context) != LY_SUCCESS ||
        lys_parse_path(context, module, LYS_IN_YANG, NULL) != LY_SUCCESS ||
        ly_in_new_filepath(file, 0, &input) != LY_SUCCESS)
        return 1;
    const double begin = now();
    const LY_ERR parsed =
        lyd_parse_data(context, NULL, input, LYD_XML, LYD_PARSE_ONLY | LYD_PARSE_STRICT, 0, &tree);
    const double read = now();
    const LY_ERR printed = lyd_print_mem(&text, tree, LYD_XML, LYD_PRINT_WITHSIBLINGS);
    printf("%.6f %.6f\n", read - begin, now() - read);
    free(text);
    lyd_free_all(tree);
    ly_in_free(input, 0);
    ly_ctx_destroy(context);
    return parsed == LY_SUCCESS && printed == LY_SUCCESS ? 0 : 1;
}

int main(int count, char *argument[])
{
    if (count == 3 && strcmp(argument[1], "xml") == 0)
        return by_libxml2(argument[2]);
    if (count == 4 && strcmp(argument[1], "yang") == 0)
        return by_libyang(argument[2], argument[3]);
    fprintf(stderr, "usage: %s xml FILE | yang FILE MODULE\n", argument[0]);
    return 2;
}
