/* A program outside the source tree, built against an installed Ostrel. */
#include <stdio.h>
#include <string.h>

#include "ostrel_error.h"
#include "ostrel_list.h"

int main(void) {
    OstrelListHandle list = NULL;
    const char *words[] = {"alpha", "beta", "gamma"};
    uint32_t count = 0;
    int i;
    if (Ostrel_List_Create(&list, NODE_STORAGE_COPY) != 0) return 1;
    for (i = 0; i < 3; ++i)
        if (Ostrel_List_AddNode(list, words[i], (int32_t)strlen(words[i]) + 1, NULL) != 0) return 2;
    if (Ostrel_List_GetCount(list, NULL, &count) != 0 || count != 3) return 3;
    if (Ostrel_List_GetNode(list, 7, NULL, NULL) != 0x90018u) return 4;
    if (strcmp(Ostrel_GetLastErrorText(), "Can not find specified item(node,element).") != 0) return 5;
    if (Ostrel_List_Destroy(list) != 0) return 6;
    printf("consumer: %u nodes, last error text checked\n", count);
    return 0;
}
