// The model of the roster: the account's contacts, each with its one-to-one chat.
//
// Ownership: a `ContactStack` owns its contacts, a contact its messages, a record its strings.
// Links to widgets are borrowed: they start NULL, the interface sets them, nothing here frees them.
// Threads: the interface thread only.
#pragma once

#include "buffers.h"

// Widgets are nothing but pointers to the model.
typedef struct _ContactChatPage ContactChatPage;
typedef struct _ContactListItem ContactListItem;

struct ContactMessage {
  u64 db_id;          // row in the store; 0 until stored
  u64 contact_db_id;  // row of the contact
  s64 time;           // POSIX seconds
  String author;      // owned; bare JID of the account itself or of the contact
  String body;        // owned
  u64 request_id;     // of the stanza that carried the message in this session; 0 for none
};

struct Contact {
  u64 db_id;          // row in the store; 0 until stored
  u64 account_db_id;  // row of the local account
  String bare_jid;    // owned
  String status;      // owned; the presence as a word, for example "unavailable"
  u32 messages_count;
  u32 messages_max;
  ContactMessage **messages;   // owned, with the messages, in the order of arrival
  ContactChatPage *chat_page;  // borrowed; NULL until shown
  ContactListItem *list_item;  // borrowed; NULL until shown
};

struct ContactStack {
  u32 count;
  u32 max;
  Contact **contacts;  // owned, with the contacts
};

// ---- Messages ----

// Copies both strings; the record belongs to the caller.
ContactMessage *alloc_contact_message (u64 db_id, u64 contact_db_id, s64 time, String author,
                                       String body);
void dealloc_contact_message (ContactMessage *message);

// ---- Contacts ----

// Copies both strings; the record belongs to the caller.
Contact *alloc_contact (u64 db_id, u64 account_db_id, String bare_jid, String status);
// Frees the strings and the record, but neither the messages nor their array, which
// `dealloc_contact_stack` does: what else drops a contact must free these first.
void dealloc_contact (Contact *contact);
// The contact takes over the message. Asserts that the capacity is not zero and not exceeded.
void contact_add_message (Contact *contact, ContactMessage *message);
// The message that this stanza carried; NULL when there is none, as for id 0. It stays the contact's.
ContactMessage *contact_get_sent_message (Contact *contact, u64 request_id);

// ---- Stack ----

// Asserts that `max` is not zero; the stack starts with room for 64 whatever it is.
ContactStack alloc_contact_stack (u32 max);
// Frees the contacts with their messages, then the array.
void dealloc_contact_stack (ContactStack stack);
// The stack takes over the contact. Asserts that the capacity is not exceeded.
void contact_stack_push (ContactStack *stack, Contact *contact);
// The first contact with exactly this bare JID, NULL when there is none; it stays the stack's.
Contact *contact_stack_get_by_bare_jid (ContactStack stack, String bare_jid);
