// The model of the roster: contacts, their chats, the stack that holds them.
#include "contacts.h"

#include <assert.h>
#include <stdlib.h>

static const u32 MESSAGES_INITIAL_MAX = 64;
static const u32 CONTACTS_INITIAL_MAX = 64;

// ---- Messages ----

ContactMessage *
alloc_contact_message (u64 db_id, u64 contact_db_id, s64 time, String author, String body)
{
  ContactMessage *message = (ContactMessage *) malloc (sizeof (*message));
  message->db_id = db_id;
  message->contact_db_id = contact_db_id;
  message->time = time;
  message->author = alloc_string (author);
  message->body = alloc_string (body);
  message->request_id = 0;
  return message;
}

void
dealloc_contact_message (ContactMessage *message)
{
  dealloc_string (message->author);
  dealloc_string (message->body);
  free (message);
}

// ---- Contacts ----

Contact *
alloc_contact (u64 db_id, u64 account_db_id, String bare_jid, String status)
{
  Contact *contact = (Contact *) malloc (sizeof (*contact));
  contact->db_id = db_id;
  contact->account_db_id = account_db_id;
  contact->bare_jid = alloc_string (bare_jid);
  contact->status = alloc_string (status);
  contact->messages_count = 0;
  contact->messages_max = MESSAGES_INITIAL_MAX;
  contact->messages = (ContactMessage **) realloc_pointers (NULL, contact->messages_max);
  contact->chat_page = NULL;
  contact->list_item = NULL;
  return contact;
}

void
dealloc_contact (Contact *contact)
{
  dealloc_string (contact->bare_jid);
  dealloc_string (contact->status);
  free (contact);
}

void
contact_add_message (Contact *contact, ContactMessage *message)
{
  assert (contact->messages_max);
  assert (contact->messages_count <= contact->messages_max);
  if (contact->messages_count >= contact->messages_max) {
    contact->messages_max = grow_max (contact->messages_count);
    contact->messages =
      (ContactMessage **) realloc_pointers (contact->messages, contact->messages_max);
  }
  contact->messages[contact->messages_count++] = message;
}

ContactMessage *
contact_get_sent_message (Contact *contact, u64 request_id)
{
  for (u32 i = contact->messages_count; request_id && i > 0; --i) {
    if (contact->messages[i - 1]->request_id == request_id)
      return contact->messages[i - 1];
  }
  return NULL;
}

// ---- Stack ----

ContactStack
alloc_contact_stack (u32 max)
{
  assert (max);
  (void) max;
  ContactStack stack;
  stack.count = 0;
  stack.max = CONTACTS_INITIAL_MAX;
  stack.contacts = (Contact **) realloc_pointers (NULL, stack.max);
  return stack;
}

void
dealloc_contact_stack (ContactStack stack)
{
  for (u32 i = 0; i < stack.count; ++i) {
    Contact *contact = stack.contacts[i];
    for (u32 j = 0; j < contact->messages_count; ++j) {
      dealloc_contact_message (contact->messages[j]);
    }
    free (contact->messages);
    dealloc_contact (contact);
  }
  free (stack.contacts);
}

void
contact_stack_push (ContactStack *stack, Contact *contact)
{
  assert (stack->count <= stack->max);
  if (stack->count >= stack->max) {
    stack->max = grow_max (stack->count);
    stack->contacts = (Contact **) realloc_pointers (stack->contacts, stack->max);
  }
  stack->contacts[stack->count++] = contact;
}

Contact *
contact_stack_get_by_bare_jid (ContactStack stack, String bare_jid)
{
  for (u32 i = 0; i < stack.count; ++i) {
    if (stack.contacts[i]->bare_jid == bare_jid) {
      return stack.contacts[i];
    }
  }
  return NULL;
}
