// The roster model: contacts, their chats, the stack that holds them.
#include <gtest/gtest.h>

#include <string>

#include "contacts.h"

static std::string
text_of (String string)
{
  return std::string ((const char *) string.data, string.size);
}

static Contact *
alloc_named_contact (const std::string &bare_jid)
{
  return alloc_contact (1, 2, to_string (bare_jid.c_str ()), to_string ("unavailable"));
}

static ContactMessage *
alloc_numbered_message (u64 db_id)
{
  return alloc_contact_message (db_id, 2, 3, to_string ("a@example.org"), to_string ("body"));
}

// ---- Messages ----

TEST (alloc_contact_message, keeps_every_field)
{
  ContactMessage *message =
    alloc_contact_message (7, 8, -9, to_string ("a@example.org"), to_string ("hello"));
  EXPECT_EQ (message->db_id, 7u);
  EXPECT_EQ (message->contact_db_id, 8u);
  EXPECT_EQ (message->time, -9);
  EXPECT_EQ (text_of (message->author), "a@example.org");
  EXPECT_EQ (text_of (message->body), "hello");
  dealloc_contact_message (message);
}

TEST (alloc_contact_message, copies_its_strings)
{
  std::string author = "a@example.org";
  std::string body = "hello";
  ContactMessage *message =
    alloc_contact_message (1, 1, 1, to_string (author.c_str ()), to_string (body.c_str ()));
  author[0] = 'X';
  body[0] = 'X';
  EXPECT_EQ (text_of (message->author), "a@example.org");
  EXPECT_EQ (text_of (message->body), "hello");
  dealloc_contact_message (message);
}

TEST (alloc_contact_message, takes_empty_strings)
{
  ContactMessage *message = alloc_contact_message (0, 0, 0, to_string (""), to_string (""));
  EXPECT_EQ (message->author.size, 0u);
  EXPECT_EQ (message->body.size, 0u);
  dealloc_contact_message (message);
}

// ---- Contacts ----

TEST (alloc_contact, keeps_every_field_and_starts_empty)
{
  ContactStack stack = alloc_contact_stack (1);
  Contact *contact = alloc_contact (5, 6, to_string ("c@example.org"), to_string ("available"));
  contact_stack_push (&stack, contact);
  EXPECT_EQ (contact->db_id, 5u);
  EXPECT_EQ (contact->account_db_id, 6u);
  EXPECT_EQ (text_of (contact->bare_jid), "c@example.org");
  EXPECT_EQ (text_of (contact->status), "available");
  EXPECT_EQ (contact->messages_count, 0u);
  EXPECT_EQ (contact->messages_max, 64u);
  EXPECT_NE (contact->messages, nullptr);
  EXPECT_EQ (contact->chat_page, nullptr);
  EXPECT_EQ (contact->list_item, nullptr);
  dealloc_contact_stack (stack);
}

TEST (alloc_contact, copies_its_strings)
{
  std::string bare_jid = "c@example.org";
  std::string status = "away";
  ContactStack stack = alloc_contact_stack (1);
  Contact *contact =
    alloc_contact (1, 1, to_string (bare_jid.c_str ()), to_string (status.c_str ()));
  contact_stack_push (&stack, contact);
  bare_jid[0] = 'X';
  status[0] = 'X';
  EXPECT_EQ (text_of (contact->bare_jid), "c@example.org");
  EXPECT_EQ (text_of (contact->status), "away");
  dealloc_contact_stack (stack);
}

TEST (dealloc_contact, leaves_the_messages_to_the_caller)
{
  Contact *contact = alloc_named_contact ("c@example.org");
  contact_add_message (contact, alloc_numbered_message (9));
  ContactMessage **messages = contact->messages;
  dealloc_contact (contact);
  // Still there: reading or freeing them twice would be an error under the sanitizers.
  EXPECT_EQ (messages[0]->db_id, 9u);
  dealloc_contact_message (messages[0]);
  free (messages);
}

TEST (contact_add_message, keeps_the_order_of_arrival)
{
  ContactStack stack = alloc_contact_stack (1);
  Contact *contact = alloc_named_contact ("c@example.org");
  contact_stack_push (&stack, contact);
  for (u64 i = 1; i <= 3; ++i) {
    contact_add_message (contact, alloc_numbered_message (i));
  }
  ASSERT_EQ (contact->messages_count, 3u);
  EXPECT_EQ (contact->messages[0]->db_id, 1u);
  EXPECT_EQ (contact->messages[1]->db_id, 2u);
  EXPECT_EQ (contact->messages[2]->db_id, 3u);
  dealloc_contact_stack (stack);
}

TEST (contact_add_message, does_not_grow_at_the_64th)
{
  ContactStack stack = alloc_contact_stack (1);
  Contact *contact = alloc_named_contact ("c@example.org");
  contact_stack_push (&stack, contact);
  for (u64 i = 0; i < 64; ++i) {
    contact_add_message (contact, alloc_numbered_message (i));
  }
  EXPECT_EQ (contact->messages_count, 64u);
  EXPECT_EQ (contact->messages_max, 64u);
  dealloc_contact_stack (stack);
}

TEST (contact_add_message, doubles_when_full_and_keeps_all)
{
  ContactStack stack = alloc_contact_stack (1);
  Contact *contact = alloc_named_contact ("c@example.org");
  contact_stack_push (&stack, contact);
  for (u64 i = 0; i < 129; ++i) {
    contact_add_message (contact, alloc_numbered_message (i));
    EXPECT_EQ (contact->messages_max, i < 64 ? 64u : i < 128 ? 128u : 256u);
  }
  ASSERT_EQ (contact->messages_count, 129u);
  for (u64 i = 0; i < 129; ++i) {
    EXPECT_EQ (contact->messages[i]->db_id, i);
  }
  dealloc_contact_stack (stack);
}

TEST (contact_add_message, stops_without_capacity)
{
  Contact contact = {};
  EXPECT_DEATH (contact_add_message (&contact, NULL),
                "src/contacts\\.cpp.*Assertion `contact->messages_max' failed");
}

TEST (contact_add_message, stops_when_more_is_used_than_there_is)
{
  Contact contact = {};
  contact.messages_max = 64;
  contact.messages_count = 65;
  EXPECT_DEATH (
    contact_add_message (&contact, NULL),
    "src/contacts\\.cpp.*Assertion `contact->messages_count <= contact->messages_max' failed");
}

// ---- Stack ----

TEST (alloc_contact_stack, has_room_for_64_whatever_is_asked_for)
{
  for (u32 max : {1u, 5u, 64u, 65u, 1000u}) {
    ContactStack stack = alloc_contact_stack (max);
    EXPECT_EQ (stack.max, 64u);
    EXPECT_EQ (stack.count, 0u);
    EXPECT_NE (stack.contacts, nullptr);
    dealloc_contact_stack (stack);
  }
}

TEST (alloc_contact_stack, stops_when_nothing_is_asked_for)
{
  EXPECT_DEATH (alloc_contact_stack (0), "src/contacts\\.cpp.*Assertion `max' failed");
}

TEST (dealloc_contact_stack, frees_contacts_and_messages)
{
  ContactStack stack = alloc_contact_stack (64);
  for (int i = 0; i < 3; ++i) {
    Contact *contact = alloc_named_contact ("c" + std::to_string (i));
    for (u64 j = 0; j < 70; ++j) {
      contact_add_message (contact, alloc_numbered_message (j));
    }
    contact_stack_push (&stack, contact);
  }
  EXPECT_EQ (stack.count, 3u);
  dealloc_contact_stack (stack);  // the leak sanitizer looks at what is left
}

TEST (contact_stack_push, does_not_grow_at_the_64th)
{
  ContactStack stack = alloc_contact_stack (64);
  for (int i = 0; i < 64; ++i) {
    contact_stack_push (&stack, alloc_named_contact (std::to_string (i)));
  }
  EXPECT_EQ (stack.count, 64u);
  EXPECT_EQ (stack.max, 64u);
  dealloc_contact_stack (stack);
}

TEST (contact_stack_push, doubles_at_the_65th_and_keeps_all)
{
  ContactStack stack = alloc_contact_stack (64);
  for (int i = 0; i < 65; ++i) {
    contact_stack_push (&stack, alloc_named_contact (std::to_string (i)));
  }
  EXPECT_EQ (stack.max, 128u);
  ASSERT_EQ (stack.count, 65u);
  for (int i = 0; i < 65; ++i) {
    EXPECT_EQ (text_of (stack.contacts[i]->bare_jid), std::to_string (i));
  }
  dealloc_contact_stack (stack);
}

TEST (contact_stack_push, stops_when_more_is_used_than_there_is)
{
  ContactStack stack = {};
  stack.max = 64;
  stack.count = 65;
  EXPECT_DEATH (contact_stack_push (&stack, NULL),
                "src/contacts\\.cpp.*Assertion `stack->count <= stack->max' failed");
}

TEST (contact_stack_get_by_bare_jid, finds_the_contact)
{
  ContactStack stack = alloc_contact_stack (64);
  contact_stack_push (&stack, alloc_named_contact ("a@example.org"));
  contact_stack_push (&stack, alloc_named_contact ("b@example.org"));
  EXPECT_EQ (contact_stack_get_by_bare_jid (stack, to_string ("b@example.org")), stack.contacts[1]);
  dealloc_contact_stack (stack);
}

TEST (contact_stack_get_by_bare_jid, gives_the_first_of_two_equal_ones)
{
  ContactStack stack = alloc_contact_stack (64);
  contact_stack_push (&stack, alloc_named_contact ("a@example.org"));
  contact_stack_push (&stack, alloc_named_contact ("a@example.org"));
  EXPECT_EQ (contact_stack_get_by_bare_jid (stack, to_string ("a@example.org")), stack.contacts[0]);
  dealloc_contact_stack (stack);
}

TEST (contact_stack_get_by_bare_jid, finds_nothing_that_is_not_equal_byte_for_byte)
{
  ContactStack stack = alloc_contact_stack (64);
  EXPECT_EQ (contact_stack_get_by_bare_jid (stack, to_string ("a@example.org")), nullptr);
  contact_stack_push (&stack, alloc_named_contact ("a@example.org"));
  for (const char *other :
       {"A@example.org", "a@Example.org", "a@example.or", "a@example.org/r", ""}) {
    EXPECT_EQ (contact_stack_get_by_bare_jid (stack, to_string (other)), nullptr) << other;
  }
  dealloc_contact_stack (stack);
}

TEST (contact_get_sent_message, finds_the_message_that_a_stanza_carried)
{
  ContactStack stack = alloc_contact_stack (1);
  Contact *contact = alloc_contact (1, 1, to_string ("bob@beta.test"), to_string ("available"));
  contact_stack_push (&stack, contact);
  EXPECT_EQ (contact_get_sent_message (contact, 7), nullptr);
  for (u64 i = 0; i < 3; ++i)
    contact_add_message (contact,
                         alloc_contact_message (0, 1, 1, to_string ("a"), to_string ("b")));
  // What came from the store or from the contact was not sent in this session.
  EXPECT_EQ (contact_get_sent_message (contact, 0), nullptr);
  contact->messages[0]->request_id = 7;
  contact->messages[2]->request_id = 9;
  EXPECT_EQ (contact_get_sent_message (contact, 7), contact->messages[0]);
  EXPECT_EQ (contact_get_sent_message (contact, 9), contact->messages[2]);
  EXPECT_EQ (contact_get_sent_message (contact, 8), nullptr);
  dealloc_contact_stack (stack);
}
