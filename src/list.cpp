// Linked list: a circular doubly linked list whose list record is its own
// sentinel. Walking `next` from the list record comes back to it, and the walk
// recognises its end by the list magic.
#define OSL_SRC_PATH "src/list"
#include <cstdlib>
#include <cstring>

#include "osl_frame.h"
#include "ostrel_list.h"

namespace {

constexpr uint32_t kListMagic = 0x12348609u;
constexpr uint32_t kNodeMagic = 0x21378609u;
constexpr uint32_t kIterMagic = 0x35238609u;

// Common head of the list record and the node record: the list's first/last
// sit where a node's next/previous do, which makes the list its own sentinel.
struct Link {
    uint32_t magic;
    Link *next; // list record: first node
    Link *prev; // list record: last node
};

struct ListRec {
    Link link;
    uint32_t iStoreMode;
};

struct NodeRec {
    Link link;
    void *pData;
    int32_t iLength;
    uint32_t iStoreMode;
};

struct IterRec {
    uint32_t magic;
    ListRec *pList;
    Link *pCursor;
};

const char *mode_name(uint32_t mode) { return mode == NODE_STORAGE_COPY ? "copy" : "reference"; }

// Releases a copy-mode node's bytes, wiped first so no copy of the caller's
// data outlives the node.
void free_node_data(NodeRec *node, const char *func) {
    if (node->iStoreMode != NODE_STORAGE_COPY) return;
    if (node->pData == nullptr) {
        OSL_LOG(LOG_LEVEL_WARN, "Free null in %s.", func);
        return;
    }
    if (node->iLength > 0) memset(node->pData, 0, static_cast<size_t>(node->iLength));
    free(node->pData);
    node->pData = nullptr;
}

uint32_t count_nodes(const ListRec *list, OstrelNodeHandle *phNodes) {
    uint32_t n = 0;
    for (Link *p = list->link.next; p != &list->link; p = p->next) {
        if (phNodes != nullptr) phNodes[n] = p;
        ++n;
    }
    return n;
}

// Iterator check: the message goes out before the last error is set.
#define OSL_CHECK_ITER(h)                          \
    do {                                           \
        if (!OSL_HandleOk((h), kIterMagic)) {      \
            OSL_LOG(LOG_LEVEL_ERROR, "Invalid itr_handle"); \
            g_OSL_errno = OSL_ERR_INVALID_HANDLE;  \
            return OSL_ERR_INVALID_HANDLE;         \
        }                                          \
    } while (0)

uint32_t get_node_at(OstrelListHandle hList, int32_t iIndex, OstrelNodeHandle *phNode, void **ppValue,
                     int32_t *piLength) {
    auto *pList = static_cast<ListRec *>(hList);
    uint32_t count = count_nodes(pList, nullptr);
    if (static_cast<int64_t>(iIndex) >= static_cast<int64_t>(count)) {
        OSL_LOG(LOG_LEVEL_ERROR, "Parameter num(%d) > list node count(%d)", iIndex, static_cast<int>(count));
        OSL_RETURN(OSL_ERR_NOT_FOUND);
    }
    Link *p = pList->link.next;
    for (int32_t i = 0; i < iIndex; ++i) {
        p = p->next;
        if (p == &pList->link) return 0;
    }
    auto *node = reinterpret_cast<NodeRec *>(p);
    if (phNode != nullptr) *phNode = node;
    if (ppValue != nullptr) *ppValue = node->pData;
    if (piLength != nullptr) *piLength = node->iLength;
    OSL_RETURN(0);
}

} // namespace

extern "C" {

OSTREL_API uint32_t Ostrel_List_Create(OstrelListHandle *phList, int iStoreFlag) {
    OSL_ASSERT_ARG(NULL != phList);
    OSL_ASSERT_ARG(((NODE_STORAGE_REFERENCE == iStoreFlag) || (NODE_STORAGE_COPY == iStoreFlag)));
    auto *pList = static_cast<ListRec *>(calloc(1, sizeof(ListRec)));
    if (pList == nullptr) OSL_ALLOC_FAILED(sizeof(ListRec));
    pList->iStoreMode = static_cast<uint32_t>(iStoreFlag);
    *phList = pList;
    pList->link.next = &pList->link;
    pList->link.prev = &pList->link;
    pList->link.magic = kListMagic;
    OSL_LOG(LOG_LEVEL_INFO, "Create list in %s mode, handle:%p", mode_name(pList->iStoreMode),
            static_cast<void *>(pList));
    OSL_RETURN(0);
}

OSTREL_API uint32_t Ostrel_List_AddNode(OstrelListHandle hList, const void *pValue, int32_t iLength,
                                        OstrelNodeHandle *phNode) {
    OSL_CHECK_HANDLE(hList, kListMagic, "Invalid list handle");
    auto *pList = static_cast<ListRec *>(hList);
    OSL_ASSERT_ARG(NULL != pValue);
    OSL_ASSERT_ARG(((NODE_STORAGE_COPY != pList->iStoreMode) || (iLength > 0)));
    auto *node = static_cast<NodeRec *>(calloc(1, sizeof(NodeRec)));
    if (node == nullptr) OSL_ALLOC_FAILED(sizeof(NodeRec));
    if (pList->iStoreMode == NODE_STORAGE_COPY) {
        void *copy = malloc(static_cast<size_t>(iLength));
        if (copy == nullptr) {
            OSL_LOG(LOG_LEVEL_ERROR, "Alloc memory (size=%d) failed.", iLength);
            free(node);
            OSL_RETURN(OSL_ERR_NO_MEMORY);
        }
        memcpy(copy, pValue, static_cast<size_t>(iLength));
        node->pData = copy;
    } else {
        node->pData = const_cast<void *>(pValue);
    }
    node->iLength = iLength;
    node->link.magic = kNodeMagic;
    node->iStoreMode = pList->iStoreMode;
    Link *oldLast = pList->link.prev;
    node->link.next = &pList->link;
    node->link.prev = oldLast;
    oldLast->next = &node->link;
    pList->link.prev = &node->link;
    if (phNode != nullptr) *phNode = node;
    OSL_LOG(LOG_LEVEL_INFO, "Add list node in %s mode, handle:%p", mode_name(pList->iStoreMode),
            static_cast<void *>(pList));
    OSL_RETURN(0);
}

OSTREL_API uint32_t Ostrel_List_GetCount(OstrelListHandle hList, OstrelNodeHandle *phNodes, uint32_t *piCount) {
    OSL_CHECK_HANDLE(hList, kListMagic, "Invalid list_handle");
    OSL_ASSERT_ARG(NULL != piCount);
    uint32_t n = count_nodes(static_cast<ListRec *>(hList), phNodes);
    *piCount = n;
    OSL_LOG(LOG_LEVEL_INFO, "Get list count: %d, handle:%p", static_cast<int>(n), hList);
    OSL_RETURN(0);
}

OSTREL_API uint32_t Ostrel_List_GetNodeData(OstrelNodeHandle hNode, void **ppValue, int32_t *piLength) {
    OSL_CHECK_HANDLE(hNode, kNodeMagic, "Invalid data_handle");
    auto *node = static_cast<NodeRec *>(hNode);
    if (ppValue != nullptr) *ppValue = node->pData;
    if (piLength != nullptr) *piLength = node->iLength;
    OSL_RETURN(0);
}

OSTREL_API uint32_t Ostrel_List_DelNode(OstrelNodeHandle hNode) {
    OSL_CHECK_HANDLE(hNode, kNodeMagic, "Invalid data_handle");
    auto *node = static_cast<NodeRec *>(hNode);
    node->link.prev->next = node->link.next;
    node->link.next->prev = node->link.prev;
    free_node_data(node, __func__);
    node->link.magic = 0;
    free(node);
    OSL_RETURN(0);
}

OSTREL_API uint32_t Ostrel_List_GetNode(OstrelListHandle hList, int32_t iIndex, void **ppValue, int32_t *piLength) {
    OSL_CHECK_HANDLE(hList, kListMagic, "Invalid list_handle");
    OSL_ASSERT_ARG(iIndex >= 0);
    return get_node_at(hList, iIndex, nullptr, ppValue, piLength);
}

OSTREL_API uint32_t Ostrel_List_GetNodeEx(OstrelListHandle hList, int32_t iIndex, OstrelNodeHandle *phNode,
                                          void **ppValue, int32_t *piLength) {
    OSL_CHECK_HANDLE(hList, kListMagic, "Invalid list_handle");
    OSL_ASSERT_ARG(iIndex >= 0);
    return get_node_at(hList, iIndex, phNode, ppValue, piLength);
}

OSTREL_API uint32_t Ostrel_List_Destroy(OstrelListHandle hList) {
    OSL_CHECK_HANDLE(hList, kListMagic, "Invalid list_handle");
    auto *pList = static_cast<ListRec *>(hList);
    Link *p = pList->link.next;
    while (p != &pList->link) {
        if (p->magic != kNodeMagic) {
            // A damaged node stops the walk; what was freed stays freed and
            // the rest is left in place. Relink the survivors so the list
            // record never points at freed nodes.
            pList->link.next = p;
            p->prev = &pList->link;
            OSL_LOG(LOG_LEVEL_ERROR, "Invalid data_handle");
            OSL_RETURN(OSL_ERR_INVALID_HANDLE);
        }
        auto *node = reinterpret_cast<NodeRec *>(p);
        p = p->next;
        free_node_data(node, __func__);
        node->link.magic = 0;
        free(node);
    }
    pList->link.magic = 0;
    free(pList);
    OSL_LOG(LOG_LEVEL_INFO, "Destroy list, handle: %p", static_cast<void *>(nullptr));
    OSL_RETURN(0);
}

OSTREL_API uint32_t Ostrel_List_BeginIterate(OstrelListHandle hList, OstrelIterHandle *phItr) {
    OSL_CHECK_HANDLE(hList, kListMagic, "Invalid list_handle");
    OSL_ASSERT_ARG(NULL != phItr);
    auto *itr = static_cast<IterRec *>(calloc(1, sizeof(IterRec)));
    if (itr == nullptr) OSL_ALLOC_FAILED(sizeof(IterRec));
    auto *pList = static_cast<ListRec *>(hList);
    itr->pList = pList;
    itr->pCursor = pList->link.next;
    itr->magic = kIterMagic;
    *phItr = itr;
    OSL_RETURN(0);
}

OSTREL_API uint32_t Ostrel_List_Iterate(OstrelIterHandle hItr, void **ppValue, int32_t *piLength, uint32_t *piFlag) {
    OSL_CHECK_ITER(hItr);
    OSL_ASSERT_ARG(NULL != piFlag);
    OSL_ASSERT_ARG(NULL != ppValue);
    auto *itr = static_cast<IterRec *>(hItr);
    if (itr->pCursor->magic == kListMagic) {
        *piFlag = 1;
        OSL_RETURN(0);
    }
    auto *node = reinterpret_cast<NodeRec *>(itr->pCursor);
    *ppValue = node->pData;
    if (piLength != nullptr) *piLength = node->iLength;
    itr->pCursor = node->link.next;
    *piFlag = 0;
    OSL_RETURN(0);
}

OSTREL_API uint32_t Ostrel_List_IterateEx(OstrelIterHandle hItr, OstrelNodeHandle *phNode, void **ppValue,
                                          int32_t *piLength, uint32_t *piFlag) {
    uint32_t rc = Ostrel_List_Iterate(hItr, ppValue, piLength, piFlag);
    if (rc == 0 && *piFlag == 0 && phNode != nullptr) *phNode = static_cast<IterRec *>(hItr)->pCursor->prev;
    OSL_RETURN(rc);
}

OSTREL_API uint32_t Ostrel_List_EndIterate(OstrelIterHandle hItr) {
    OSL_CHECK_ITER(hItr);
    memset(hItr, 0, sizeof(IterRec));
    free(hItr);
    OSL_RETURN(0);
}

} // extern "C"
