// The main window, and the hub of a session: the account, the connection, the worker, the stream
// buffers, the loaded contacts and procedures. Everything above the store is given this window and
// reaches the session through it.
//
// Ownership: owns account, connection, buffers and the loaded stacks; borrows the store and the TLS
// credentials. A worker and every record on its way to the interface hold a reference on the window.
//
// Threads: the interface thread. A worker touches `account`, `connection`, the input buffer, the
// credentials and the request id, and the interface leaves the first three alone until it was told
// how the worker's job ended.
#pragma once

#include <gtk/gtk.h>
#include <sqlite3.h>

#include "account_lock.h"
#include "negotiation.h"
#include "outbox.h"
#include "stream_management.h"
#include "worker.h"
#include "xmpp_connection.h"

typedef struct _App App;
typedef struct _LoginPage LoginPage;
typedef struct _RegistrationPage RegistrationPage;
typedef struct _ProcedureCreationPage ProcedureCreationPage;
typedef struct _VCardPage VCardPage;

struct _AppWindow {
  GtkApplicationWindow parent_instance;
  gnutls_certificate_credentials_t tls_credentials;  // borrowed
  sqlite3 *db;                                       // borrowed
  Config config;      // account and password of the configuration file, each may be empty
  u64 account_db_id;  // row of the account that is logged in; 0 before
  XMPPAccount account;
  Connection connection;
  Buffer input_stream_buffer;
  Buffer output_stream_buffer;
  StreamManagement stream_management;
  const XMPPHandlers *xmpp_handlers;  // static; who takes what the worker hands over
  Outbox outbox;                      // of the account; zeroed before
  bool is_delivering;                 // what waits in the outbox is sent
  guint outbox_table_source;          // a timer that lets the empty table go; 0 for none
  guint outbox_look_source;  // a timer that looks what the server's system has taken; 0 for none
  u64 last_xmpp_id;          // of all sessions: what comes back late is known by its id
  u64 get_vcard_id;          // pending request for another account's vCard; 0 for none
  u64 get_own_vcard_id;      // pending request for the own vCard; 0 for none
  GtkWidget *prev_main_page;
  ContactStack contacts;
  ProceduresStack procedures;
  GtkWidget *undo_bar;  // below the lists; seen while a deletion can be undone
  GtkLabel *undo_label;
  guint undo_source;        // a timer that ends this; 0 for none
  GSList *held_records;     // what came for the deleted procedure; the last first
  Negotiation negotiation;  // over the above; `app_window_get_negotiation` is the way to it
  // Template children.
  GtkPaned *console_paned;
  GtkTextView *console;
  GtkStack *stack;
  LoginPage *login_page;
  RegistrationPage *registration_page;
  ProcedureCreationPage *procedure_creation_page;
  VCardPage *vcard_page;
  GtkPaned *main_page;
  GtkStack *main_page_stack;
  GtkBox *roster_tools_box;
  GtkButton *show_vcard_button;
  GtkButton *add_procedure_button;
  GtkListBox *contacts_list_box;
  GtkListBox *procedures_list_box;
  // The worker, and the end of the window.
  Worker *worker;          // the last one that was started; none before the first
  bool worker_active;      // started, and its outcome not yet handled; interface thread only
  bool worker_stray;       // the window closed without waiting longer for it
  String worker_bare_jid;  // owned; the account that the last worker was started for
  // The session: session.h.
  bool is_connected;          // the account is loaded, and its session is not known to be over
  bool is_login_wanted;       // the user ends the session to log in again
  bool is_notified;           // a notification says that the session is over
  gint is_send_change_known;  // the interface is about to look at what waits to be sent; atomic
  guint send_source;          // waits until the socket takes more; 0 for none
  guint stream_end_source;    // ends the wait for the server's end of the stream; 0 for none
  AccountLock *account_lock;  // of the account that is loaded or claimed; NULL for none; session.h
  bool closing;          // the user closed the window: only model and store are kept up to date
  bool closing_is_late;  // the server was waited for as long as it may
  guint closing_source;  // a timer that goes on with the closing; 0 for none
  bool closed;           // nothing is applied any more; interface thread only
  bool loading;          // the account is being loaded, and the window has to stay
};

G_DECLARE_FINAL_TYPE (AppWindow, app_window, MORVANE, APP_WINDOW, GtkApplicationWindow)

// Size of each stream buffer, in bytes: what bounds the longest stanza.
enum {
  STREAM_BUFFER_SIZE = 0x7FFFFF
};

// `console` is shown in the window's console pane.
AppWindow *app_window_new (App *app, gnutls_certificate_credentials_t tls_credentials, sqlite3 *db,
                           GtkTextBuffer *console);

// ---- Pages ----

void app_window_goto_login_page (AppWindow *window, const char *bare_jid);  // NULL: entry unchanged
void app_window_goto_registration_page (AppWindow *window);
void app_window_goto_prev_main_page (AppWindow *window);

// ---- Account, contacts and procedures ----

// Puts unsaved typing of all clauses into the store.
void app_window_save_drafts (AppWindow *window);
// After a login: finds or makes the account's row, loads it, fills the lists, shows the main page.
void app_window_load_account (AppWindow *window);
// The negotiations of the account that is loaded, for the acts of `negotiation.h`.
Negotiation *app_window_get_negotiation (AppWindow *window);
void app_window_add_contact (AppWindow *window, Contact *contact);
void app_window_create_new_contact (AppWindow *window, String bare_jid, String status);
void app_window_set_contact_status (AppWindow *window, Contact *contact, String status);
void app_window_add_contact_message (AppWindow *window, Contact *contact, String text);
void app_window_add_procedure (AppWindow *window, Procedure *procedure);
// From the lists, the store and memory; nobody is told. It can be undone for a while.
void app_window_remove_procedure (AppWindow *window, Procedure *procedure);
// Shows a procedure whose deletion was undone, at its old place in the list, as the user left it.
void app_window_put_procedure_back (AppWindow *window, Procedure *procedure);
// Makes, stores, shows and sends a procedure that the user opens. `title` has no apostrophe.
void app_window_create_new_procedure (AppWindow *window, String title, String contractor);

// ---- The worker ----

// Runs `entry` with the window on a thread of its own. No worker may be active.
void app_window_start_worker (AppWindow *window, void *(*entry) (void *) );
// Whether a worker runs or its outcome still waits to be handled.
bool app_window_is_worker_running (AppWindow *window);
// Idle handler, posted by the worker behind its outcome: drops the worker's reference.
gboolean app_window_release_worker (gpointer data);
// Ends a running worker's wait for the server; its outcome, a failure, still comes.
void app_window_interrupt_worker (AppWindow *window);
// Ends the worker of a login or a registration that the user gives up. True when that is done, and
// another may start: the worker was still connecting and is left behind without its window. Else its
// outcome, a failure, comes in a moment.
bool app_window_give_up_worker (AppWindow *window);
// Whether another window of the process has a living session with this account, or is logging in to
// it.
bool app_window_is_account_open_elsewhere (AppWindow *window, String bare_jid);
// False once a closed window has ended its session: an idle handler then only frees its record.
bool app_window_is_open (AppWindow *window);
// The number of workers that had to be left behind by a window that closed, because they did not
// come back in time; while there are any, the TLS library must not be de-initialised.
u32 app_window_count_stray_workers ();

// The server has acknowledged stanzas.
void app_window_note_acknowledged (AppWindow *window);
