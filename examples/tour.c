/* A tour of every Ostrel subsystem. The README shows the regions between the
 * "tour:" markers verbatim (a test checks that), and the test suite builds and
 * runs this program, so the samples cannot go stale. It works in a fresh
 * temporary directory and exits 0 only if every check held. */
#define _DEFAULT_SOURCE /* usleep */
#define _POSIX_C_SOURCE 200809L
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ostrel_error.h"
#include "ostrel_ervix.h"
#include "ostrel_list.h"
#include "ostrel_memory.h"
#include "ostrel_netbase.h"
#include "ostrel_serializer.h"
#include "ostrel_service.h"
#include "ostrel_table.h"
#include "ostrel_threadgroup.h"

static int failures;
#define CHECK(cond)                                                              \
    do {                                                                         \
        if (!(cond)) {                                                           \
            fprintf(stderr, "tour: check failed at line %d: %s\n", __LINE__, #cond); \
            ++failures;                                                          \
        }                                                                        \
    } while (0)

static void tour_memory(void) {
    FILE *f;
    char text[256] = {0};
    /* tour: memory */
    /* Debugging must be switched on before the first allocation call. */
    uint32_t rc = Ostrel_SetOption(OSL_OPTION_MEMORY_DEBUG, (void *)1);
    char *block = OSTREL_MALLOC(32); /* Ostrel_Malloc_D(32, __FILE__, __LINE__) */
    strcpy(block, "tracked");
    Ostrel_MemorySummary("leaks.txt"); /* "Memory block: 32 bytes allocated at <file> - <line>." */
    Ostrel_Free(block);
    /* tour end */
    CHECK(rc == 0);
    f = fopen("leaks.txt", "r");
    CHECK(f != NULL);
    if (f != NULL) {
        CHECK(fread(text, 1, sizeof text - 1, f) > 0);
        fclose(f);
    }
    CHECK(strstr(text, "[New summary]\nMemory block: 32 bytes allocated at ") != NULL);
}

static void tour_list(void) {
    char buf[8] = "copy me";
    void *data = NULL;
    int32_t len = 0;
    uint32_t count = 0, end = 0;
    /* tour: list */
    OstrelListHandle list = NULL;
    OstrelIterHandle it = NULL;
    Ostrel_List_Create(&list, NODE_STORAGE_COPY);         /* the list keeps its own copies */
    Ostrel_List_AddNode(list, buf, (int32_t)sizeof buf, NULL);
    Ostrel_List_AddNode(list, "second", 7, NULL);
    Ostrel_List_GetCount(list, NULL, &count);               /* 2 */
    Ostrel_List_GetNode(list, 1, &data, &len);              /* "second", 7 bytes */
    Ostrel_List_BeginIterate(list, &it);
    while (Ostrel_List_Iterate(it, &data, &len, &end) == 0 && !end)
        printf("list: %s\n", (const char *)data);
    Ostrel_List_EndIterate(it);
    Ostrel_List_Destroy(list);
    /* tour end */
    CHECK(count == 2);
    CHECK(end == 1);
}

static void tour_table(void) {
    char colour[16] = "";
    char order[64] = "";
    /* tour: table */
    OstrelTableHandle table = NULL;
    OstrelTableIterHandle it = NULL;
    const char *key = NULL;
    void *value = NULL;
    Ostrel_Table_Create(&table, 64, NODE_STORAGE_COPY);
    Ostrel_Table_SetProperty(table, TABLE_PROP_SORT_FUNCTION, 0); /* visit in key order */
    Ostrel_Table_String_AddNode(table, "pear", "green", 6);
    Ostrel_Table_String_AddNode(table, "apple", "red", 4);
    Ostrel_Table_String_GetNode(table, "pear", &value, NULL);    /* the node's own copy */
    strcpy(colour, (const char *)value);                          /* "green" */
    Ostrel_Table_BeginIterate(table, &it, TABLE_ITERATE_FORWARD);
    while (Ostrel_Table_String_Iterate(it, &key, &value, NULL) == 0 && key != NULL)
        strcat(strcat(order, key), " ");                          /* "apple pear " */
    Ostrel_Table_EndIterate(it);
    Ostrel_Table_Destroy(table);
    /* tour end */
    CHECK(strcmp(colour, "green") == 0);
    CHECK(strcmp(order, "apple pear ") == 0);
}

static void tour_serializer(void) {
    int32_t id = 0;
    char *name = NULL;
    int64_t *big = NULL;
    unsigned int n = 0;
    char seen[32] = "";
    /* tour: serializer */
    /* Unordered packets: every item carries an index and is read back by it. */
    Ostrel_SerializerConfig cfg = {0, 0, 4, 0, 0}; /* little-endian, align 4, unordered */
    Ostrel_Serializer *out = NULL, *in = NULL;
    unsigned char *pkt = NULL;
    int len = 0;
    int64_t values[3] = {1, 2, 3};
    Ostrel_Serializer_SerializeInit(&cfg, &out);
    Ostrel_Serializer_Serialize(out, OSL_SLZ_MODE_APPEND, "%1.d %2.s %3.al", 7, "seven", values, 3);
    Ostrel_Serializer_GetBuffer(out, &pkt, &len);           /* pkt stays the handle's */
    Ostrel_Serializer_DeserializeInit(pkt, len, &in);       /* validates the whole packet */
    Ostrel_Serializer_Deserialize(in, "%1.d @2.s @N3.al", &id, &name, &big, &n);
    /* name points into pkt; big is a new block of n values, the caller's */
    snprintf(seen, sizeof seen, "%d %s %lld", (int)id, name, (long long)big[n - 1]); /* "7 seven 3" */
    Ostrel_Free(big);
    Ostrel_Serializer_Destroy(in);
    Ostrel_Serializer_Destroy(out);
    /* tour end */
    CHECK(n == 3);
    CHECK(strcmp(seen, "7 seven 3") == 0);
}

/* tour: netbase-server */
/* Runs on the listen's worker thread for every accepted connection. */
static uint32_t echo_once(NetbaseCtx *conn, void *arg) {
    void *data = NULL;
    int32_t size = 0;
    (void)arg;
    if (netbase_server_handshake(conn, 5000) == 0 && netbase_receive_packet(conn, &data, &size, 5000) == 0)
        netbase_send_packet(conn, data, size, 5000);
    netbase_close(conn);
    return 0;
}
/* tour end */

static void tour_netbase(void) {
    /* tour: netbase-client */
    NetbaseCtx *listen = NULL, *client = NULL;
    const char *addr = NULL;
    uint32_t port = 0, timeout = 5000;
    void *reply = NULL;
    int32_t reply_len = 0;
    netbase_tcp_establish_listen("127.0.0.1", 0, &listen); /* port 0: any free port */
    netbase_get_listening_info(listen, &addr, &port);
    netbase_wait_connection(listen, echo_once, NULL, 1);     /* serve on a worker thread */
    netbase_client_tcp_connect("127.0.0.1", (int32_t)port, &timeout, &client); /* with handshake */
    netbase_send_packet(client, "ping", 5, 5000);
    netbase_receive_packet(client, &reply, &reply_len, 5000); /* "ping": memory of the handle */
    netbase_close(client);
    netbase_close(listen);                                    /* the worker stops serving */
    /* tour end */
    CHECK(port != 0);
    CHECK(reply_len == 5);
}

static int finished;

/* tour: threadgroup-worker */
static uint32_t worker(void *param, OstrelThreadNodeHandle node) {
    int to_close = 0;
    while (!to_close)
        Ostrel_ThreadGroup_Sleep(node, 1000, &to_close); /* returns at once when cancelled */
    __sync_fetch_and_add((int *)param, 1);
    return 0;
}
/* tour end */

static void tour_threadgroup(void) {
    int i;
    /* tour: threadgroup */
    OstrelThreadGroupHandle group = NULL;
    Ostrel_ThreadGroup_Create(&group);
    for (i = 0; i < 4; ++i)
        Ostrel_ThreadGroup_NewThread(group, worker, &finished);
    Ostrel_ThreadGroup_CancelAll(group); /* one byte to every thread's control socket */
    Ostrel_ThreadGroup_Destroy(group);   /* waits until every thread has ended */
    /* tour end */
    CHECK(__sync_fetch_and_add(&finished, 0) == 4);
}

/* tour: service-start */
static uint32_t start_service(void *param) {
    (void)param;
    /* make listens and start threads here; 0 means started */
    return 0;
}
/* tour end */

static void tour_service(void) {
    int status = 0, tries;
    FILE *f = NULL;
    long pid_in_file = 0;
    /* tour: service */
    pid_t child = fork();
    if (child == 0) {
        /* Locks ./qmv_ns_tour.pid, calls start_service and sleeps for ever;
         * returns only when the service could not start. */
        uint32_t rc = Ostrel_NonService_Wrapper_CustomPath_Ex("tour", ".", start_service, NULL);
        _exit((int)(rc & 0x7F));
    }
    /* ... while it runs, a second instance would be refused with 0x90001. */
    /* tour end */
    for (tries = 0; tries < 500 && (f = fopen("qmv_ns_tour.pid", "r")) == NULL; ++tries) usleep(10000);
    CHECK(f != NULL);
    if (f != NULL) {
        for (tries = 0; tries < 500 && fscanf(f, "%ld", &pid_in_file) != 1; ++tries) {
            usleep(10000);
            rewind(f);
        }
        fclose(f);
    }
    CHECK(pid_in_file == (long)child);
    kill(child, SIGTERM);
    waitpid(child, &status, 0);
    CHECK(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM); /* it was still running */
}

/* tour: errors-fill */
/* Fills the block of module 77 ("shop"): entry 256 + n for code 0x4D8000 | n. */
static int fill_shop(const char *name, uint32_t id, ErvixErrInfoBlock *block, uint32_t name_len) {
    ErvixErrInfoEntry *e = &block->stEntries[ERVIX_ENTRY_INDEX(0x4D8001u)];
    (void)name, (void)id, (void)name_len;
    e->uiPresent = 1;
    strcpy(e->szTextEN, "[shop]Out of stock.");
    strcpy(e->szTextCN, "[shop]\xe7\xbc\xba\xe8\xb4\xa7\xe3\x80\x82"); /* UTF-8 */
    return 0;
}
/* tour end */

static void tour_errors(void) {
    const char *text, *last, *shop;
    /* tour: errors */
    Ostrel_List_GetNode(NULL, 0, NULL, NULL);             /* fails: 0x90010 */
    text = Ostrel_GetErrorText(0x90018);                    /* "Can not find specified item(node,element)." */
    last = Ostrel_GetLastErrorText();                       /* "Invalid handle." */
    Ervix_Register("shop", 77, fill_shop);
    shop = Ervix_GetErrInfoEN(0x4D8001);                    /* "Out of stock." (tag stripped) */
    /* tour end */
    CHECK(strcmp(text, "Can not find specified item(node,element).") == 0);
    CHECK(strcmp(last, "Invalid handle.") == 0);
    CHECK(strcmp(shop, "Out of stock.") == 0);
    CHECK(strcmp(Ervix_GetErrModule(0x4D8001), "shop") == 0);
}

int main(void) {
    char dir[] = "/tmp/ostrel_tour_XXXXXX";
    if (mkdtemp(dir) == NULL || chdir(dir) != 0) return 2;
    tour_memory();  /* first: debugging is switched on before any allocation */
    tour_service(); /* forks while this process has no other thread */
    tour_list();
    tour_table();
    tour_serializer();
    tour_netbase();
    tour_threadgroup();
    tour_errors();
    unlink("leaks.txt");
    unlink("qmv_ns_tour.pid");
    if (chdir("/") == 0) rmdir(dir);
    printf("tour: %s\n", failures ? "FAILED" : "every sample ran as documented");
    return failures != 0;
}
