/* The echo example module written in C against include/tessmar/module.h
 * alone: the same answers, byte for byte, as examples/echo_module, which is
 * written on the C++ SDK. Read it to see what the contract asks of a module.
 *
 *   - A "native" request is answered
 *         {"module":"echo","origin":"...","id":"...","length":N}
 *     N being the byte length of the whole request text.
 *   - A "setcallback" request is answered
 *         {"module":"echo","registered":true,"callback":"NAME"}
 *     ({"module":"echo","registered":false} without a "callback" member or
 *     with one not made of letters, digits, "_", "." and "$"),
 *     and about 50 ms later a worker thread sends to that callback
 *         {"module":"echo","event":"ping","id":"..."}
 *
 * The worker thread is stopped and joined in Terminate and, for a host that
 * never unloads its modules, in the library's destructor at exit. */
#include <errno.h>
#include <json.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "tessmar/module.h"

#define CALLBACK_DELAY_NS 50000000L

/* The host's services, set by SetHostFuncs before any request. */
static QXHostFuncs* g_host;

/* --- Text --------------------------------------------------------------- */

/* A growing string; `text` is NULL after an allocation failed. */
typedef struct {
  char* text;
  size_t length, capacity;
} Buffer;

static void append(Buffer* b, const char* data, size_t n) {
  if (b->text == NULL && b->capacity != 0) return; /* failed earlier */
  if (b->length + n + 1 > b->capacity) {
    size_t capacity = b->capacity ? b->capacity : 64;
    while (b->length + n + 1 > capacity) capacity *= 2;
    char* grown = realloc(b->text, capacity);
    if (grown == NULL) {
      free(b->text);
      b->text = NULL;
      return;
    }
    b->text = grown;
    b->capacity = capacity;
  }
  memcpy(b->text + b->length, data, n);
  b->length += n;
  b->text[b->length] = '\0';
}

static void append_text(Buffer* b, const char* text) {
  append(b, text, strlen(text));
}

/* `text` as a JSON string. The host inserts answers as they stand, so every
 * string put into JSON must be escaped: quote, backslash and the control
 * characters; other bytes (UTF-8 included) pass through. */
static void append_json_string(Buffer* b, const char* text) {
  append(b, "\"", 1);
  for (const unsigned char* p = (const unsigned char*)(text ? text : "");
       *p != '\0'; ++p) {
    const char* shortcut = NULL;
    switch (*p) {
      case '"': shortcut = "\\\""; break;
      case '\\': shortcut = "\\\\"; break;
      case '\b': shortcut = "\\b"; break;
      case '\f': shortcut = "\\f"; break;
      case '\n': shortcut = "\\n"; break;
      case '\r': shortcut = "\\r"; break;
      case '\t': shortcut = "\\t"; break;
    }
    if (shortcut != NULL) {
      append_text(b, shortcut);
    } else if (*p < 0x20) {
      char escape[7];
      snprintf(escape, sizeof escape, "\\u%04X", *p);
      append_text(b, escape);
    } else {
      append(b, (const char*)p, 1);
    }
  }
  append(b, "\"", 1);
}

/* A copy of the finished text in the host's memory, handed back through
 * FreeString, which releases it with the host's Free. */
static char* for_host(Buffer* b) {
  char* copy = NULL;
  if (b->text != NULL && (copy = g_host->Alloc(b->length + 1)) != NULL) {
    memcpy(copy, b->text, b->length + 1);
  }
  free(b->text);
  return copy;
}

/* The request's "callback" member, a copy to free, or NULL. The name is not
 * an argument of SetCallback: it is read from the request text. */
static char* callback_member(const char* request) {
  json_value* root = json_parse(request, strlen(request));
  char* name = NULL;
  if (root != NULL && root->type == json_object) {
    for (unsigned i = 0; i < root->u.object.length; ++i) {
      const json_object_entry* member = &root->u.object.values[i];
      if (member->name_length != 8 || memcmp(member->name, "callback", 8) != 0)
        continue;
      if (member->value->type == json_string && member->value->u.string.length)
        name = strdup(member->value->u.string.ptr);
      break; /* the first member of that name counts, as for the host */
    }
  }
  if (root != NULL) json_value_free(root);
  return name;
}

/* The host copies a callback name into the callback text as it stands, and
 * extensions route callbacks by that text: a name holding a quote could
 * forge where a callback goes. Only names that need no escaping are taken. */
static int plain_name(const char* name) {
  for (; *name != '\0'; ++name) {
    const char c = *name;
    if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
          (c >= '0' && c <= '9') || c == '_' || c == '.' || c == '$'))
      return 0;
  }
  return 1;
}

/* --- The worker thread -------------------------------------------------- */

typedef struct Pending {
  struct Pending* next;
  char *tabid, *callback, *id;
  struct timespec due; /* CLOCK_MONOTONIC */
} Pending;

static pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t g_wake; /* waits on CLOCK_MONOTONIC, see init_wake */
static pthread_once_t g_wake_once = PTHREAD_ONCE_INIT;
static Pending *g_head, *g_tail; /* due in the order they arrived */
static pthread_t g_worker;
static int g_running, g_stopping;

static void init_wake(void) {
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  pthread_cond_init(&g_wake, &attr);
  pthread_condattr_destroy(&attr);
}

static void free_pending(Pending* p) {
  free(p->tabid);
  free(p->callback);
  free(p->id);
  free(p);
}

static void send_ping(const Pending* p) {
  Buffer b = {0};
  append_text(&b, "{\"module\":\"echo\",\"event\":\"ping\",\"id\":");
  append_json_string(&b, p->id);
  append_text(&b, "}");
  /* Never called with g_lock held: the host takes its own lock here. */
  if (b.text != NULL) g_host->SendCallback(p->tabid, NULL, p->callback, b.text);
  free(b.text);
}

static void* run_worker(void* unused) {
  (void)unused;
  pthread_mutex_lock(&g_lock);
  while (!g_stopping) {
    if (g_head == NULL) {
      pthread_cond_wait(&g_wake, &g_lock);
    } else if (pthread_cond_timedwait(&g_wake, &g_lock, &g_head->due) ==
               ETIMEDOUT) {
      Pending* next = g_head;
      g_head = next->next;
      if (g_head == NULL) g_tail = NULL;
      pthread_mutex_unlock(&g_lock);
      send_ping(next);
      free_pending(next);
      pthread_mutex_lock(&g_lock);
    }
  }
  pthread_mutex_unlock(&g_lock);
  return NULL;
}

/* Stops the worker and drops the pings not sent: nobody waits for them. */
static void stop_worker(void) {
  pthread_mutex_lock(&g_lock);
  const int running = g_running;
  g_stopping = 1;
  pthread_cond_signal(&g_wake);
  pthread_mutex_unlock(&g_lock);
  if (running) pthread_join(g_worker, NULL);
  pthread_mutex_lock(&g_lock);
  while (g_head != NULL) {
    Pending* next = g_head->next;
    free_pending(g_head);
    g_head = next;
  }
  g_tail = NULL;
  g_running = g_stopping = 0;
  pthread_mutex_unlock(&g_lock);
}

/* A host may never unload its modules; the process then just exits, and the
 * thread must still be stopped before the library's code goes away. */
__attribute__((destructor)) static void stop_at_exit(void) { stop_worker(); }

/* --- Entry points ------------------------------------------------------- */

static void SetHostFuncs(QXHostFuncs* host) { g_host = host; }

static void Terminate(void) { stop_worker(); }

static void FreeString(char* text) { g_host->Free(text); }

static char* Invoke(const char* origin, const char* id, const char* request) {
  char length[32];
  snprintf(length, sizeof length, "%zu", request ? strlen(request) : 0);
  Buffer b = {0};
  append_text(&b, "{\"module\":\"echo\",\"origin\":");
  append_json_string(&b, origin);
  append_text(&b, ",\"id\":");
  append_json_string(&b, id);
  append_text(&b, ",\"length\":");
  append_text(&b, length);
  append_text(&b, "}");
  return for_host(&b);
}

static char* SetCallback(const char* origin, const char* id,
                         const char* request, const char* tabid, int flag) {
  (void)origin;
  (void)flag; /* always 1 */
  char* callback = request ? callback_member(request) : NULL;
  Pending* p = callback && tabid && plain_name(callback) ? calloc(1, sizeof *p) : NULL;
  Buffer b = {0};
  if (p == NULL) {
    free(callback);
    append_text(&b, "{\"module\":\"echo\",\"registered\":false}");
    return for_host(&b);
  }
  p->tabid = strdup(tabid);
  p->callback = callback;
  p->id = strdup(id ? id : "");
  clock_gettime(CLOCK_MONOTONIC, &p->due);
  p->due.tv_nsec += CALLBACK_DELAY_NS;
  if (p->due.tv_nsec >= 1000000000L) {
    p->due.tv_sec += 1;
    p->due.tv_nsec -= 1000000000L;
  }
  append_text(&b, "{\"module\":\"echo\",\"registered\":true,\"callback\":");
  append_json_string(&b, callback);
  append_text(&b, "}");

  pthread_mutex_lock(&g_lock);
  if (g_tail != NULL) g_tail->next = p; else g_head = p;
  g_tail = p;
  if (!g_running) g_running = pthread_create(&g_worker, NULL, run_worker, NULL) == 0;
  pthread_cond_signal(&g_wake);
  pthread_mutex_unlock(&g_lock);
  return for_host(&b);
}

/* The one exported symbol. The table arrives uncleared: fill every slot. */
__attribute__((visibility("default"))) int Initialize(QxClientFuncs* funcs) {
  if (funcs == NULL) return 1;
  pthread_once(&g_wake_once, init_wake);
  memset(funcs, 0, sizeof *funcs);
  funcs->SetHostFuncs = SetHostFuncs;
  funcs->Terminate = Terminate;
  funcs->FreeString = FreeString;
  funcs->Invoke = Invoke;
  funcs->SetCallback = SetCallback;
  return 0;
}
