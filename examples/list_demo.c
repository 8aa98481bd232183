/* A small tour of the list and the error texts: builds a copy-mode list,
 * walks it, provokes a few errors and prints what each call answered. */
#include <stdio.h>
#include <string.h>

#include "ostrel_error.h"
#include "ostrel_list.h"

static int report(const char *what, uint32_t rc) {
    printf("%-44s -> 0x%05x %s\n", what, (unsigned)rc, rc ? Ostrel_GetErrorText(rc) : "ok");
    return rc != 0;
}

int main(void) {
    OstrelListHandle list = NULL;
    OstrelIterHandle itr = NULL;
    const char *names[] = {"alpha", "bravo", "charlie", "delta"};
    char buf[16];
    uint32_t count = 0, end = 0;
    void *data = NULL;
    int32_t len = 0;
    int i, failures = 0;

    failures += report("Ostrel_List_Create(copy)", Ostrel_List_Create(&list, NODE_STORAGE_COPY));
    for (i = 0; i < 4; ++i) {
        strcpy(buf, names[i]);
        failures += report("Ostrel_List_AddNode", Ostrel_List_AddNode(list, buf, (int32_t)strlen(buf) + 1, NULL));
        memset(buf, 'x', sizeof buf - 1); /* the list keeps its own copy */
    }
    failures += report("Ostrel_List_GetCount", Ostrel_List_GetCount(list, NULL, &count));
    printf("  count = %u\n", count);
    failures += report("Ostrel_List_GetNode(2)", Ostrel_List_GetNode(list, 2, &data, &len));
    printf("  node 2 = \"%s\" (%d bytes)\n", (const char *)data, len);

    failures += report("Ostrel_List_BeginIterate", Ostrel_List_BeginIterate(list, &itr));
    printf("  walk:");
    while (Ostrel_List_Iterate(itr, &data, &len, &end) == 0 && !end) printf(" %s", (const char *)data);
    printf("\n");
    failures += report("Ostrel_List_EndIterate", Ostrel_List_EndIterate(itr));

    /* Errors the caller is expected to handle. */
    printf("expected failures:\n");
    report("  Ostrel_List_GetNode(9)", Ostrel_List_GetNode(list, 9, &data, &len));
    printf("  last error: 0x%05x \"%s\"\n", (unsigned)Ostrel_GetLastError(), Ostrel_GetLastErrorText());
    report("  Ostrel_List_Create(flag 7)", Ostrel_List_Create(&list, 7));
    report("  Ostrel_List_GetCount(NULL)", Ostrel_List_GetCount(NULL, NULL, &count));

    failures += report("Ostrel_List_Destroy", Ostrel_List_Destroy(list));
    printf("%s\n", failures ? "list demo FAILED" : "list demo finished: all calls behaved as documented");
    return failures != 0;
}
