#pragma once
// Application manager client interface: a process joins once at start and is then told about
// focus and resource changes through its callback table.

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    APM_RESOURCE_NONE = 0,
    APM_RESOURCE_AUDIO,
    APM_RESOURCE_VIDEO,
    APM_RESOURCE_NETWORK,
    APM_RESOURCE_STORAGE
} APM_RESOURCE_e;

// Slot order is fixed by the application manager; the last slot must stay null.
typedef struct {
    int (*OnGetFocus)(void);
    int (*OnLoseFocus)(void);
    int (*OnDestroy)(void);
    int (*OnGetResource)(APM_RESOURCE_e resource);
    int (*OnLoseResource)(APM_RESOURCE_e resource);
    void *reserved;
} APM_CTRL_HANDLER_t;

// Returns 0 when joined, any other value when the application manager refuses the process.
int APM_Join(APM_CTRL_HANDLER_t *handler);

#ifdef __cplusplus
}
#endif
