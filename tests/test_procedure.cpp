// The negotiation model: records, growable arrays, lookups, free seconds.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "procedure.h"

static const s64 S64_MAX = INT64_MAX;

static std::string
text_of (String string)
{
  return std::string ((const char *) string.data, string.size);
}

static String
string_of (const std::string &text)
{
  return {(u8 *) text.data (), text.size ()};
}

// Records that differ only in what a test looks at.
static ClauseMessage *
alloc_test_message (u64 db_id)
{
  return alloc_clause_message (db_id, 1, 2, to_string ("a@example.org"), to_string ("text"));
}

static ClauseRevisionDecision *
alloc_test_decision (u64 db_id, const char *author = "a@example.org")
{
  return alloc_clause_revision_decision (db_id, 1, 2, to_string (author), DECISION_AGREE);
}

static ClauseRevision *
alloc_test_revision (u64 db_id, const char *author = "a@example.org", s64 time = 1)
{
  return alloc_clause_revision (db_id, 1, time, to_string (author), REVISION_COMMITTED,
                                to_string ("text"));
}

static Clause *
alloc_test_clause (u64 db_id, const char *initiator = "a@example.org", s64 time = 1)
{
  return alloc_clause (db_id, 1, time, to_string (initiator), 1);
}

static Procedure *
alloc_test_procedure (u64 db_id, const char *initiator = "a@example.org", s64 time = 1)
{
  return alloc_procedure (db_id, 1, time, to_string ("title"), to_string (initiator),
                          to_string ("b@example.org"));
}

// ---- Statuses ----

TEST (revision_status, has_its_numbers_and_words)
{
  EXPECT_EQ (REVISION_INVALID, 0u);
  EXPECT_EQ (REVISION_COMMITTED, 1u);
  EXPECT_EQ (REVISION_DRAFT, 2u);
  EXPECT_STREQ (REVISION_STATUS_STRINGS[REVISION_INVALID], "INVALID");
  EXPECT_STREQ (REVISION_STATUS_STRINGS[REVISION_COMMITTED], "COMMITTED");
  EXPECT_STREQ (REVISION_STATUS_STRINGS[REVISION_DRAFT], "DRAFT");
  EXPECT_EQ (sizeof (RevisionStatus), 4u);
}

TEST (decision_status, has_its_numbers_and_words)
{
  EXPECT_EQ (DECISION_INVALID, 0u);
  EXPECT_EQ (DECISION_AGREE, 1u);
  EXPECT_EQ (DECISION_DISAGREE, 2u);
  EXPECT_STREQ (DECISION_STATUS_STRINGS[DECISION_INVALID], "INVALID");
  EXPECT_STREQ (DECISION_STATUS_STRINGS[DECISION_AGREE], "AGREE");
  EXPECT_STREQ (DECISION_STATUS_STRINGS[DECISION_DISAGREE], "DISAGREE");
  EXPECT_EQ (sizeof (DecisionStatus), 4u);
}

struct RevisionWord {
  const char *text;
  RevisionStatus status;
};

class cstr_to_revision_status_table : public testing::TestWithParam<RevisionWord> {};

TEST_P (cstr_to_revision_status_table, takes_exact_words_only)
{
  EXPECT_EQ (cstr_to_revision_status (GetParam ().text), GetParam ().status);
}

INSTANTIATE_TEST_SUITE_P (words, cstr_to_revision_status_table,
                          testing::Values (RevisionWord{"COMMITTED", REVISION_COMMITTED},
                                           RevisionWord{"DRAFT", REVISION_DRAFT},
                                           RevisionWord{"INVALID", REVISION_INVALID},
                                           RevisionWord{"committed", REVISION_INVALID},
                                           RevisionWord{"Draft", REVISION_INVALID},
                                           RevisionWord{"", REVISION_INVALID},
                                           RevisionWord{"COMMITTE", REVISION_INVALID},
                                           RevisionWord{"COMMITTED ", REVISION_INVALID},
                                           RevisionWord{" DRAFT", REVISION_INVALID},
                                           RevisionWord{"AGREE", REVISION_INVALID}));

struct DecisionWord {
  const char *text;
  DecisionStatus status;
};

class decision_status_table : public testing::TestWithParam<DecisionWord> {};

TEST_P (decision_status_table, cstr_takes_exact_words_only)
{
  EXPECT_EQ (cstr_to_decision_status (GetParam ().text), GetParam ().status);
}

TEST_P (decision_status_table, string_takes_exact_words_only)
{
  EXPECT_EQ (string_to_decision_status (to_string (GetParam ().text)), GetParam ().status);
}

INSTANTIATE_TEST_SUITE_P (words, decision_status_table,
                          testing::Values (DecisionWord{"AGREE", DECISION_AGREE},
                                           DecisionWord{"DISAGREE", DECISION_DISAGREE},
                                           DecisionWord{"INVALID", DECISION_INVALID},
                                           DecisionWord{"agree", DECISION_INVALID},
                                           DecisionWord{"Disagree", DECISION_INVALID},
                                           DecisionWord{"", DECISION_INVALID},
                                           DecisionWord{"AGRE", DECISION_INVALID},
                                           DecisionWord{"AGREED", DECISION_INVALID},
                                           DecisionWord{" AGREE", DECISION_INVALID},
                                           DecisionWord{"DRAFT", DECISION_INVALID}));

TEST (string_to_decision_status, stops_at_the_size_of_the_string)
{
  EXPECT_EQ (string_to_decision_status ({(u8 *) "AGREEMENT", 5}), DECISION_AGREE);
  EXPECT_EQ (string_to_decision_status ({(u8 *) "AGREE\0", 6}), DECISION_INVALID);
  EXPECT_EQ (string_to_decision_status ({}), DECISION_INVALID);
}

// ---- Records ----

TEST (alloc_clause_message, keeps_every_field)
{
  ClauseMessage *message =
    alloc_clause_message (1, 2, -3, to_string ("author"), to_string ("text"));
  EXPECT_EQ (message->db_id, 1u);
  EXPECT_EQ (message->clause_db_id, 2u);
  EXPECT_EQ (message->time, -3);
  EXPECT_EQ (text_of (message->author), "author");
  EXPECT_EQ (text_of (message->text), "text");
  dealloc_clause_message (message);
}

TEST (alloc_clause_revision_decision, keeps_every_field)
{
  ClauseRevisionDecision *decision =
    alloc_clause_revision_decision (1, 2, -3, to_string ("author"), DECISION_DISAGREE);
  EXPECT_EQ (decision->db_id, 1u);
  EXPECT_EQ (decision->clause_revision_db_id, 2u);
  EXPECT_EQ (decision->time, -3);
  EXPECT_EQ (text_of (decision->author), "author");
  EXPECT_EQ (decision->status, DECISION_DISAGREE);
  dealloc_clause_revision_decision (decision);
}

TEST (alloc_clause_revision, keeps_every_field_and_starts_empty)
{
  ClauseRevision *revision =
    alloc_clause_revision (1, 2, -3, to_string ("author"), REVISION_DRAFT, to_string ("text"));
  EXPECT_EQ (revision->db_id, 1u);
  EXPECT_EQ (revision->clause_db_id, 2u);
  EXPECT_EQ (revision->time, -3);
  EXPECT_EQ (text_of (revision->author), "author");
  EXPECT_EQ (revision->status, REVISION_DRAFT);
  EXPECT_EQ (text_of (revision->text), "text");
  EXPECT_EQ (revision->decisions_max, 32u);
  EXPECT_EQ (revision->decisions_count, 0u);
  EXPECT_NE (revision->decisions, nullptr);
  dealloc_clause_revision (revision);
}

TEST (alloc_clause, keeps_every_field_and_starts_empty)
{
  Clause *clause = alloc_clause (1, 2, -3, to_string ("initiator"), 4);
  EXPECT_EQ (clause->view, nullptr);
  EXPECT_EQ (clause->chat_page, nullptr);
  EXPECT_EQ (clause->db_id, 1u);
  EXPECT_EQ (clause->procedure_db_id, 2u);
  EXPECT_EQ (clause->time, -3);
  EXPECT_EQ (text_of (clause->initiator), "initiator");
  EXPECT_EQ (clause->position, 4u);
  EXPECT_EQ (clause->messages_max, 32u);
  EXPECT_EQ (clause->messages_count, 0u);
  EXPECT_NE (clause->messages, nullptr);
  EXPECT_EQ (clause->revisions_max, 32u);
  EXPECT_EQ (clause->revisions_count, 0u);
  EXPECT_NE (clause->revisions, nullptr);
  EXPECT_EQ (clause->draft, nullptr);
  dealloc_clause (clause);
}

TEST (alloc_procedure, keeps_every_field_and_starts_empty)
{
  Procedure *procedure = alloc_procedure (1, 2, -3, to_string ("title"), to_string ("initiator"),
                                          to_string ("contractor"));
  EXPECT_EQ (procedure->view, nullptr);
  EXPECT_EQ (procedure->list_item, nullptr);
  EXPECT_EQ (procedure->db_id, 1u);
  EXPECT_EQ (procedure->account_db_id, 2u);
  EXPECT_EQ (procedure->time, -3);
  EXPECT_EQ (text_of (procedure->title), "title");
  EXPECT_EQ (text_of (procedure->initiator), "initiator");
  EXPECT_EQ (text_of (procedure->contractor), "contractor");
  EXPECT_EQ (procedure->clauses_max, 64u);
  EXPECT_EQ (procedure->clauses_count, 0u);
  EXPECT_NE (procedure->clauses, nullptr);
  dealloc_procedure (procedure);
}

TEST (alloc_procedure_stack, starts_empty)
{
  ProceduresStack stack = alloc_procedure_stack ();
  EXPECT_EQ (stack.max, 64u);
  EXPECT_EQ (stack.count, 0u);
  EXPECT_NE (stack.procedures, nullptr);
  dealloc_procedure_stack (stack);
}

TEST (alloc_records, copy_their_strings)
{
  std::string one = "one";
  std::string two = "two";
  std::string three = "three";
  ClauseMessage *message = alloc_clause_message (1, 1, 1, string_of (one), string_of (two));
  ClauseRevisionDecision *decision =
    alloc_clause_revision_decision (1, 1, 1, string_of (one), DECISION_AGREE);
  ClauseRevision *revision =
    alloc_clause_revision (1, 1, 1, string_of (one), REVISION_DRAFT, string_of (two));
  Clause *clause = alloc_clause (1, 1, 1, string_of (one), 1);
  Procedure *procedure =
    alloc_procedure (1, 1, 1, string_of (one), string_of (two), string_of (three));
  one[0] = two[0] = three[0] = 'X';
  EXPECT_EQ (text_of (message->author) + text_of (message->text), "onetwo");
  EXPECT_EQ (text_of (decision->author), "one");
  EXPECT_EQ (text_of (revision->author) + text_of (revision->text), "onetwo");
  EXPECT_EQ (text_of (clause->initiator), "one");
  EXPECT_EQ (text_of (procedure->title) + text_of (procedure->initiator) +
               text_of (procedure->contractor),
             "onetwothree");
  dealloc_clause_message (message);
  dealloc_clause_revision_decision (decision);
  dealloc_clause_revision (revision);
  dealloc_clause (clause);
  dealloc_procedure (procedure);
}

TEST (alloc_clause_revision, keeps_empty_texts_and_0_bytes)
{
  ClauseRevision *revision =
    alloc_clause_revision (0, 0, 0, to_string (""), REVISION_DRAFT, {(u8 *) "a\0b", 3});
  EXPECT_EQ (revision->author.size, 0u);
  EXPECT_EQ (text_of (revision->text), std::string ("a\0b", 3));
  dealloc_clause_revision (revision);
}

TEST (dealloc_procedure_stack, frees_the_whole_tree)
{
  ProceduresStack stack = alloc_procedure_stack ();
  for (int i = 0; i < 2; ++i) {
    Procedure *procedure = alloc_test_procedure (1);
    for (int j = 0; j < 3; ++j) {
      Clause *clause = alloc_test_clause (1);
      clause_add_message (clause, alloc_test_message (1));
      ClauseRevision *revision = alloc_test_revision (1);
      clause_revision_add_decision (revision, alloc_test_decision (1));
      clause_revision_add_decision (revision, alloc_test_decision (2));
      clause_add_revision (clause, revision);
      clause->draft = j ? alloc_test_revision (2) : NULL;
      procedure_add_clause (procedure, clause);
    }
    procedures_stack_add_procedure (&stack, procedure);
  }
  EXPECT_EQ (stack.count, 2u);
  dealloc_procedure_stack (stack);  // the leak sanitizer looks at what is left
}

// ---- Titles ----

static std::string
title_of (const std::string &text)
{
  String title = alloc_procedure_title (string_of (text));
  std::string result = text_of (title);
  dealloc_string (title);
  return result;
}

TEST (alloc_procedure_title, writes_another_apostrophe_and_changes_no_other_byte)
{
  EXPECT_EQ (title_of ("it's"), "it\u2019s");
  EXPECT_EQ (title_of ("''"), "\u2019\u2019");
  EXPECT_EQ (title_of (""), "");
  std::string others;
  for (int c = 0; c < 256; ++c) {
    if (c != '\'') {
      others += (char) c;
    }
  }
  EXPECT_EQ (title_of (others), others);
}

// ---- Adding ----

TEST (clause_revision_add_decision, doubles_at_the_33rd_and_keeps_all)
{
  ClauseRevision *revision = alloc_test_revision (1);
  for (u64 i = 0; i < 32; ++i) {
    clause_revision_add_decision (revision, alloc_test_decision (i));
  }
  EXPECT_EQ (revision->decisions_max, 32u);
  clause_revision_add_decision (revision, alloc_test_decision (32));
  EXPECT_EQ (revision->decisions_max, 64u);
  ASSERT_EQ (revision->decisions_count, 33u);
  for (u64 i = 0; i < 33; ++i) {
    EXPECT_EQ (revision->decisions[i]->db_id, i);
  }
  dealloc_clause_revision (revision);
}

TEST (clause_add_message, doubles_at_the_33rd_and_keeps_all)
{
  Clause *clause = alloc_test_clause (1);
  for (u64 i = 0; i < 32; ++i) {
    clause_add_message (clause, alloc_test_message (i));
  }
  EXPECT_EQ (clause->messages_max, 32u);
  clause_add_message (clause, alloc_test_message (32));
  EXPECT_EQ (clause->messages_max, 64u);
  ASSERT_EQ (clause->messages_count, 33u);
  for (u64 i = 0; i < 33; ++i) {
    EXPECT_EQ (clause->messages[i]->db_id, i);
  }
  dealloc_clause (clause);
}

TEST (clause_add_revision, doubles_at_the_33rd_and_keeps_all)
{
  Clause *clause = alloc_test_clause (1);
  for (u64 i = 0; i < 32; ++i) {
    clause_add_revision (clause, alloc_test_revision (i));
  }
  EXPECT_EQ (clause->revisions_max, 32u);
  clause_add_revision (clause, alloc_test_revision (32));
  EXPECT_EQ (clause->revisions_max, 64u);
  ASSERT_EQ (clause->revisions_count, 33u);
  for (u64 i = 0; i < 33; ++i) {
    EXPECT_EQ (clause->revisions[i]->db_id, i);
  }
  EXPECT_EQ (clause->draft, nullptr);
  dealloc_clause (clause);
}

TEST (procedure_add_clause, doubles_at_the_65th_and_keeps_all)
{
  Procedure *procedure = alloc_test_procedure (1);
  for (u64 i = 0; i < 64; ++i) {
    procedure_add_clause (procedure, alloc_test_clause (i));
  }
  EXPECT_EQ (procedure->clauses_max, 64u);
  procedure_add_clause (procedure, alloc_test_clause (64));
  EXPECT_EQ (procedure->clauses_max, 128u);
  ASSERT_EQ (procedure->clauses_count, 65u);
  for (u64 i = 0; i < 65; ++i) {
    EXPECT_EQ (procedure->clauses[i]->db_id, i);
  }
  dealloc_procedure (procedure);
}

TEST (procedures_stack_add_procedure, doubles_whenever_it_is_full)
{
  ProceduresStack stack = alloc_procedure_stack ();
  for (u64 i = 0; i < 257; ++i) {
    procedures_stack_add_procedure (&stack, alloc_test_procedure (i));
    EXPECT_EQ (stack.max, i < 64 ? 64u : i < 128 ? 128u : i < 256 ? 256u : 512u);
  }
  ASSERT_EQ (stack.count, 257u);
  for (u64 i = 0; i < 257; ++i) {
    EXPECT_EQ (stack.procedures[i]->db_id, i);
  }
  dealloc_procedure_stack (stack);
}

TEST (clause_revision_add_decision, stops_without_capacity)
{
  ClauseRevision revision = {};
  EXPECT_DEATH (clause_revision_add_decision (&revision, NULL),
                "src/procedure\\.cpp.*Assertion `revision->decisions_max' failed");
}

TEST (clause_add_message, stops_without_capacity)
{
  Clause clause = {};
  EXPECT_DEATH (clause_add_message (&clause, NULL),
                "src/procedure\\.cpp.*Assertion `clause->messages_max' failed");
}

TEST (clause_add_revision, stops_without_capacity)
{
  Clause clause = {};
  EXPECT_DEATH (clause_add_revision (&clause, NULL),
                "src/procedure\\.cpp.*Assertion `clause->revisions_max' failed");
}

TEST (procedure_add_clause, stops_without_capacity)
{
  Procedure procedure = {};
  EXPECT_DEATH (procedure_add_clause (&procedure, NULL),
                "src/procedure\\.cpp.*Assertion `procedure->clauses_max' failed");
}

TEST (procedures_stack_add_procedure, stops_without_capacity)
{
  ProceduresStack stack = {};
  EXPECT_DEATH (procedures_stack_add_procedure (&stack, NULL),
                "src/procedure\\.cpp.*Assertion `stack->max' failed");
}

// ---- Removing ----

// The store ids of what is left when `index` is taken out of 1, 2, 3; the removed one is freed.
static std::string
remove_revision_of_three (u32 index)
{
  Clause *clause = alloc_test_clause (1);
  for (u64 i = 1; i <= 3; ++i) {
    clause_add_revision (clause, alloc_test_revision (i));
  }
  ClauseRevision *removed = clause->revisions[index];
  clause_remove_revision (clause, index);
  std::string left;
  for (u32 i = 0; i < clause->revisions_count; ++i) {
    left += std::to_string (clause->revisions[i]->db_id);
  }
  left += "-" + std::to_string (removed->db_id);
  dealloc_clause_revision (removed);
  dealloc_clause (clause);
  return left;
}

TEST (clause_remove_revision, closes_the_gap_and_keeps_the_order)
{
  EXPECT_EQ (remove_revision_of_three (0), "23-1");
  EXPECT_EQ (remove_revision_of_three (1), "13-2");
  EXPECT_EQ (remove_revision_of_three (2), "12-3");
}

TEST (clause_remove_revision, works_on_a_full_array)
{
  Clause *clause = alloc_test_clause (1);
  for (u64 i = 0; i < 32; ++i) {
    clause_add_revision (clause, alloc_test_revision (i));
  }
  dealloc_clause_revision (clause->revisions[0]);
  clause_remove_revision (clause, 0);
  EXPECT_EQ (clause->revisions_count, 31u);
  EXPECT_EQ (clause->revisions[30]->db_id, 31u);
  dealloc_clause (clause);
}

TEST (clause_remove_revision, past_the_end_stops_the_program)
{
  Clause *clause = alloc_test_clause (1);
  EXPECT_DEATH (clause_remove_revision (clause, 0),
                "src/procedure\\.cpp.*Assertion `index < clause->revisions_count' failed");
  for (u64 i = 0; i < 3; ++i) {
    clause_add_revision (clause, alloc_test_revision (i));
  }
  EXPECT_DEATH (clause_remove_revision (clause, 3),
                "src/procedure\\.cpp.*Assertion `index < clause->revisions_count' failed");
  dealloc_clause (clause);
}

static std::string
remove_clause_of_three (u32 index)
{
  Procedure *procedure = alloc_test_procedure (1);
  for (u64 i = 1; i <= 3; ++i) {
    procedure_add_clause (procedure, alloc_test_clause (i));
  }
  Clause *removed = procedure->clauses[index];
  procedure_remove_clause (procedure, index);
  std::string left;
  for (u32 i = 0; i < procedure->clauses_count; ++i) {
    left += std::to_string (procedure->clauses[i]->db_id);
  }
  left += "-" + std::to_string (removed->db_id);
  dealloc_clause (removed);
  dealloc_procedure (procedure);
  return left;
}

TEST (procedure_remove_clause, closes_the_gap_and_keeps_the_order)
{
  EXPECT_EQ (remove_clause_of_three (0), "23-1");
  EXPECT_EQ (remove_clause_of_three (1), "13-2");
  EXPECT_EQ (remove_clause_of_three (2), "12-3");
}

TEST (procedure_remove_clause, past_the_end_stops_the_program)
{
  Procedure *procedure = alloc_test_procedure (1);
  procedure_add_clause (procedure, alloc_test_clause (1));
  EXPECT_DEATH (procedure_remove_clause (procedure, 1),
                "src/procedure\\.cpp.*Assertion `index < procedure->clauses_count' failed");
  dealloc_procedure (procedure);
}

static std::string
remove_procedure_of_three (u32 index)
{
  ProceduresStack stack = alloc_procedure_stack ();
  for (u64 i = 1; i <= 3; ++i) {
    procedures_stack_add_procedure (&stack, alloc_test_procedure (i));
  }
  Procedure *removed = stack.procedures[index];
  procedures_stack_remove_procedure (&stack, index);
  std::string left;
  for (u32 i = 0; i < stack.count; ++i) {
    left += std::to_string (stack.procedures[i]->db_id);
  }
  left += "-" + std::to_string (removed->db_id);
  dealloc_procedure (removed);
  dealloc_procedure_stack (stack);
  return left;
}

TEST (procedures_stack_remove_procedure, closes_the_gap_and_keeps_the_order)
{
  EXPECT_EQ (remove_procedure_of_three (0), "23-1");
  EXPECT_EQ (remove_procedure_of_three (1), "13-2");
  EXPECT_EQ (remove_procedure_of_three (2), "12-3");
}

TEST (procedures_stack_remove_procedure, past_the_end_stops_the_program)
{
  ProceduresStack stack = alloc_procedure_stack ();
  EXPECT_DEATH (procedures_stack_remove_procedure (&stack, 0),
                "src/procedure\\.cpp.*Assertion `index < stack->count' failed");
  dealloc_procedure_stack (stack);
}

// ---- Lookups ----

TEST (get_revision_decision_by_author, gives_the_first_of_that_author)
{
  ClauseRevision *revision = alloc_test_revision (1);
  EXPECT_EQ (get_revision_decision_by_author (revision, to_string ("a")), nullptr);
  clause_revision_add_decision (revision, alloc_test_decision (1, "a"));
  clause_revision_add_decision (revision, alloc_test_decision (2, "b"));
  clause_revision_add_decision (revision, alloc_test_decision (3, "b"));
  EXPECT_EQ (get_revision_decision_by_author (revision, to_string ("a")), revision->decisions[0]);
  EXPECT_EQ (get_revision_decision_by_author (revision, to_string ("b")), revision->decisions[1]);
  EXPECT_EQ (get_revision_decision_by_author (revision, to_string ("B")), nullptr);
  EXPECT_EQ (get_revision_decision_by_author (revision, to_string ("")), nullptr);
  dealloc_clause_revision (revision);
}

TEST (get_revision_decision_by_party, gives_the_first_however_it_is_spelled)
{
  ClauseRevision *revision = alloc_test_revision (1);
  clause_revision_add_decision (revision, alloc_test_decision (1, "a"));
  clause_revision_add_decision (revision, alloc_test_decision (2, "b"));
  clause_revision_add_decision (revision, alloc_test_decision (3, "B"));
  EXPECT_EQ (get_revision_decision_by_party (revision, to_string ("B")), revision->decisions[1]);
  EXPECT_EQ (get_revision_decision_by_party (revision, to_string ("A")), revision->decisions[0]);
  EXPECT_EQ (get_revision_decision_by_party (revision, to_string ("c")), nullptr);
  dealloc_clause_revision (revision);
}

TEST (get_clause_revision_by_author_and_time, wants_both_to_match)
{
  Clause *clause = alloc_test_clause (1);
  clause_add_revision (clause, alloc_test_revision (1, "a", 100));
  clause_add_revision (clause, alloc_test_revision (2, "b", 100));
  clause_add_revision (clause, alloc_test_revision (3, "a", 101));
  EXPECT_EQ (get_clause_revision_by_author_and_time (clause, to_string ("a"), 100),
             clause->revisions[0]);
  EXPECT_EQ (get_clause_revision_by_author_and_time (clause, to_string ("b"), 100),
             clause->revisions[1]);
  EXPECT_EQ (get_clause_revision_by_author_and_time (clause, to_string ("a"), 101),
             clause->revisions[2]);
  EXPECT_EQ (get_clause_revision_by_author_and_time (clause, to_string ("b"), 101), nullptr);
  EXPECT_EQ (get_clause_revision_by_author_and_time (clause, to_string ("b"), 99), nullptr);
  EXPECT_EQ (get_clause_revision_by_author_and_time (clause, to_string ("c"), 100), nullptr);
  dealloc_clause (clause);
}

TEST (get_clause_revision_by_author_and_time, gives_the_older_of_two_equal_ones)
{
  Clause *clause = alloc_test_clause (1);
  clause_add_revision (clause, alloc_test_revision (1, "a", 100));
  clause_add_revision (clause, alloc_test_revision (2, "a", 100));
  EXPECT_EQ (get_clause_revision_by_author_and_time (clause, to_string ("a"), 100),
             clause->revisions[0]);
  dealloc_clause (clause);
}

TEST (get_clause_revision_by_author_and_time, does_not_look_at_the_draft)
{
  Clause *clause = alloc_test_clause (1);
  clause->draft = alloc_test_revision (1, "a", 100);
  EXPECT_EQ (get_clause_revision_by_author_and_time (clause, to_string ("a"), 100), nullptr);
  dealloc_clause (clause);
}

TEST (get_clause_by_initiator_and_time, wants_both_to_match)
{
  Procedure *procedure = alloc_test_procedure (1);
  EXPECT_EQ (get_clause_by_initiator_and_time (procedure, to_string ("a"), 100), nullptr);
  procedure_add_clause (procedure, alloc_test_clause (1, "a", 100));
  procedure_add_clause (procedure, alloc_test_clause (2, "b", 100));
  procedure_add_clause (procedure, alloc_test_clause (3, "b", 100));
  EXPECT_EQ (get_clause_by_initiator_and_time (procedure, to_string ("a"), 100),
             procedure->clauses[0]);
  EXPECT_EQ (get_clause_by_initiator_and_time (procedure, to_string ("b"), 100),
             procedure->clauses[1]);
  EXPECT_EQ (get_clause_by_initiator_and_time (procedure, to_string ("a"), 101), nullptr);
  EXPECT_EQ (get_clause_by_initiator_and_time (procedure, to_string ("a"), 99), nullptr);
  EXPECT_EQ (get_clause_by_initiator_and_time (procedure, to_string ("c"), 100), nullptr);
  dealloc_procedure (procedure);
}

TEST (get_procedure_by_initiator_and_time, wants_both_to_match)
{
  ProceduresStack stack = alloc_procedure_stack ();
  EXPECT_EQ (get_procedure_by_initiator_and_time (&stack, to_string ("a"), 100), nullptr);
  procedures_stack_add_procedure (&stack, alloc_test_procedure (1, "a", 100));
  procedures_stack_add_procedure (&stack, alloc_test_procedure (2, "b", 100));
  procedures_stack_add_procedure (&stack, alloc_test_procedure (3, "b", 100));
  EXPECT_EQ (get_procedure_by_initiator_and_time (&stack, to_string ("a"), 100),
             stack.procedures[0]);
  EXPECT_EQ (get_procedure_by_initiator_and_time (&stack, to_string ("b"), 100),
             stack.procedures[1]);
  EXPECT_EQ (get_procedure_by_initiator_and_time (&stack, to_string ("a"), -100), nullptr);
  EXPECT_EQ (get_procedure_by_initiator_and_time (&stack, to_string ("a"), 101), nullptr);
  EXPECT_EQ (get_procedure_by_initiator_and_time (&stack, to_string ("c"), 100), nullptr);
  dealloc_procedure_stack (stack);
}

TEST (get_revision_index_reversed, counts_from_the_oldest)
{
  Clause *clause = alloc_test_clause (1);
  clause->draft = alloc_test_revision (9);
  EXPECT_EQ (get_revision_index_reversed (clause, clause->draft), -1);
  for (u64 i = 0; i < 3; ++i) {
    clause_add_revision (clause, alloc_test_revision (i));
  }
  EXPECT_EQ (get_revision_index_reversed (clause, clause->revisions[0]), 0);
  EXPECT_EQ (get_revision_index_reversed (clause, clause->revisions[1]), 1);
  EXPECT_EQ (get_revision_index_reversed (clause, clause->revisions[2]), 2);
  EXPECT_EQ (get_revision_index_reversed (clause, clause->draft), -1);
  EXPECT_EQ (get_revision_index_reversed (clause, NULL), -1);
  dealloc_clause (clause);
}

TEST (get_revision_index_reversed, knows_the_record_and_not_what_is_in_it)
{
  Clause *clause = alloc_test_clause (1);
  clause_add_revision (clause, alloc_test_revision (1));
  ClauseRevision *twin = alloc_test_revision (1);
  EXPECT_EQ (get_revision_index_reversed (clause, twin), -1);
  dealloc_clause_revision (twin);
  dealloc_clause (clause);
}

TEST (get_revision_index_reversed, looks_at_the_newest_first)
{
  Clause *clause = alloc_test_clause (1);
  ClauseRevision *revision = alloc_test_revision (1);
  clause_add_revision (clause, revision);
  clause_add_revision (clause, alloc_test_revision (2));
  clause_add_revision (clause, revision);
  EXPECT_EQ (get_revision_index_reversed (clause, revision), 2);
  clause_remove_revision (clause, 2);
  dealloc_clause (clause);
}

TEST (procedure_get_clause_index_reversed, counts_from_the_oldest)
{
  Procedure *procedure = alloc_test_procedure (1);
  Clause *stranger = alloc_test_clause (1);
  EXPECT_EQ (procedure_get_clause_index_reversed (procedure, stranger), -1);
  procedure_add_clause (procedure, alloc_test_clause (1));
  procedure_add_clause (procedure, alloc_test_clause (2));
  EXPECT_EQ (procedure_get_clause_index_reversed (procedure, procedure->clauses[0]), 0);
  EXPECT_EQ (procedure_get_clause_index_reversed (procedure, procedure->clauses[1]), 1);
  EXPECT_EQ (procedure_get_clause_index_reversed (procedure, stranger), -1);
  dealloc_clause (stranger);
  dealloc_procedure (procedure);
}

TEST (procedure_get_clause_index_reversed, looks_at_the_newest_first)
{
  Procedure *procedure = alloc_test_procedure (1);
  Clause *clause = alloc_test_clause (1);
  procedure_add_clause (procedure, clause);
  procedure_add_clause (procedure, clause);
  EXPECT_EQ (procedure_get_clause_index_reversed (procedure, clause), 1);
  procedure_remove_clause (procedure, 1);
  dealloc_procedure (procedure);
}

TEST (procedures_stack_get_index, finds_the_record)
{
  ProceduresStack stack = alloc_procedure_stack ();
  Procedure *stranger = alloc_test_procedure (1);
  EXPECT_EQ (procedures_stack_get_index (&stack, stranger), -1);
  procedures_stack_add_procedure (&stack, alloc_test_procedure (1));
  procedures_stack_add_procedure (&stack, alloc_test_procedure (2));
  EXPECT_EQ (procedures_stack_get_index (&stack, stack.procedures[0]), 0);
  EXPECT_EQ (procedures_stack_get_index (&stack, stack.procedures[1]), 1);
  EXPECT_EQ (procedures_stack_get_index (&stack, stranger), -1);
  dealloc_procedure (stranger);
  dealloc_procedure_stack (stack);
}

TEST (procedures_stack_get_index, looks_at_the_oldest_first)
{
  ProceduresStack stack = alloc_procedure_stack ();
  Procedure *procedure = alloc_test_procedure (1);
  procedures_stack_add_procedure (&stack, procedure);
  procedures_stack_add_procedure (&stack, procedure);
  EXPECT_EQ (procedures_stack_get_index (&stack, procedure), 0);
  procedures_stack_remove_procedure (&stack, 1);
  dealloc_procedure_stack (stack);
}

// The seconds and authors that the tests of orders draw from; one author begins another.
static const char *const ORDERED_AUTHORS[] = {"a@h", "b@h", "a@ha", "A@h", "\xc3\xa4@h", ""};

// What the test itself puts into order: std::string compares byte by byte.
typedef std::vector<std::pair<s64, std::string>> Marks;

static Marks
draw_marks (u32 seed)
{
  std::mt19937 source (seed);
  std::set<std::pair<s64, std::string>> marks;
  for (u32 i = 0; i < 12; i++) {
    marks.insert ({(s64) (source () % 4) - 1, ORDERED_AUTHORS[source () % 6]});
  }
  Marks arrival (marks.begin (), marks.end ());
  std::shuffle (arrival.begin (), arrival.end (), source);
  return arrival;
}

TEST (clause_order_last_revision, goes_by_time_and_author_whatever_came_first)
{
  for (u32 seed = 1; seed <= 200; seed++) {
    Marks marks = draw_marks (seed);
    Clause *clause = alloc_test_clause (1);
    for (const auto &mark : marks) {
      clause_add_revision (clause, alloc_test_revision (1, mark.second.c_str (), mark.first));
      clause_order_last_revision (clause);
    }
    std::sort (marks.begin (), marks.end ());
    ASSERT_EQ (clause->revisions_count, marks.size ());
    for (u32 i = 0; i < clause->revisions_count; i++) {
      EXPECT_EQ (clause->revisions[i]->time, marks[i].first);
      EXPECT_EQ (text_of (clause->revisions[i]->author), marks[i].second);
    }
    dealloc_clause (clause);
  }
}

TEST (procedure_order_last_clause, goes_by_time_and_initiator_whatever_came_first)
{
  for (u32 seed = 1; seed <= 200; seed++) {
    Marks marks = draw_marks (seed);
    Procedure *procedure = alloc_test_procedure (1);
    for (const auto &mark : marks) {
      procedure_add_clause (procedure, alloc_test_clause (1, mark.second.c_str (), mark.first));
      procedure_order_last_clause (procedure);
    }
    std::sort (marks.begin (), marks.end ());
    ASSERT_EQ (procedure->clauses_count, marks.size ());
    for (u32 i = 0; i < procedure->clauses_count; i++) {
      EXPECT_EQ (procedure->clauses[i]->time, marks[i].first);
      EXPECT_EQ (text_of (procedure->clauses[i]->initiator), marks[i].second);
    }
    dealloc_procedure (procedure);
  }
}

TEST (clause_order_last, needs_one)
{
  Clause *clause = alloc_test_clause (1);
  EXPECT_DEATH (clause_order_last_revision (clause), "src/procedure.*clause->revisions_count");
  dealloc_clause (clause);
  Procedure *procedure = alloc_test_procedure (1);
  EXPECT_DEATH (procedure_order_last_clause (procedure), "src/procedure.*procedure->clauses_count");
  dealloc_procedure (procedure);
}

TEST (clause_order_last_revision, puts_it_behind_all_that_are_not_later)
{
  Clause *clause = alloc_test_clause (1);
  s64 times[] = {5, 9, 2, 5, 7, 9};
  for (u32 i = 0; i < 6; i++) {
    clause_add_revision (clause, alloc_test_revision (i + 1, "a@example.org", times[i]));
    clause_order_last_revision (clause);
  }
  std::string order;
  for (u32 i = 0; i < clause->revisions_count; i++) {
    order += std::to_string (clause->revisions[i]->db_id) + " ";
  }
  EXPECT_EQ (order, "3 1 4 5 2 6 ");
  dealloc_clause (clause);
}

TEST (clause_get_free_message_time, looks_at_lines_of_the_same_author)
{
  Clause *clause = alloc_test_clause (1);
  const char *authors[] = {"a", "a", "b"};
  s64 times[] = {5, 6, 7};
  for (u32 i = 0; i < 3; i++) {
    clause_add_message (clause, alloc_clause_message (1, 1, times[i], to_string (authors[i]),
                                                      to_string ("text")));
  }
  EXPECT_EQ (clause_get_free_message_time (clause, to_string ("a"), 5), 7);
  EXPECT_EQ (clause_get_free_message_time (clause, to_string ("a"), 8), 8);
  EXPECT_EQ (clause_get_free_message_time (clause, to_string ("b"), 5), 5);
  EXPECT_EQ (clause_get_free_message_time (clause, to_string ("b"), 7), 8);
  dealloc_clause (clause);
}

TEST (procedure_get_other_party, is_the_one_that_is_not_named)
{
  Procedure *procedure = alloc_test_procedure (1);
  EXPECT_EQ (text_of (procedure_get_other_party (procedure, to_string ("a@example.org"))),
             "b@example.org");
  EXPECT_EQ (text_of (procedure_get_other_party (procedure, to_string ("b@example.org"))),
             "a@example.org");
  dealloc_procedure (procedure);
}

// ---- Free seconds ----

TEST (clause_get_free_revision_time, is_the_time_itself_when_it_is_free)
{
  Clause *clause = alloc_test_clause (1);
  EXPECT_EQ (clause_get_free_revision_time (clause, to_string ("a"), 100), 100);
  clause_add_revision (clause, alloc_test_revision (1, "a", 99));
  clause_add_revision (clause, alloc_test_revision (2, "b", 100));
  clause_add_revision (clause, alloc_test_revision (3, "a", 101));
  EXPECT_EQ (clause_get_free_revision_time (clause, to_string ("a"), 100), 100);
  dealloc_clause (clause);
}

TEST (clause_get_free_revision_time, passes_over_what_the_author_has_in_any_order)
{
  Clause *clause = alloc_test_clause (1);
  for (s64 time : {103, 100, 102, 101, 105}) {
    clause_add_revision (clause, alloc_test_revision (1, "a", time));
  }
  EXPECT_EQ (clause_get_free_revision_time (clause, to_string ("a"), 100), 104);
  EXPECT_EQ (clause_get_free_revision_time (clause, to_string ("a"), 105), 106);
  EXPECT_EQ (clause_get_free_revision_time (clause, to_string ("b"), 100), 100);
  dealloc_clause (clause);
}

TEST (clause_get_free_revision_time, does_not_count_the_draft)
{
  Clause *clause = alloc_test_clause (1);
  clause->draft = alloc_test_revision (1, "a", 100);
  EXPECT_EQ (clause_get_free_revision_time (clause, to_string ("a"), 100), 100);
  dealloc_clause (clause);
}

TEST (clause_get_free_revision_time, serves_a_thousand_revisions_of_one_second)
{
  Clause *clause = alloc_test_clause (1);
  for (s64 i = 0; i < 1000; ++i) {
    s64 time = clause_get_free_revision_time (clause, to_string ("a"), 5000);
    ASSERT_EQ (time, 5000 + i);
    clause_add_revision (clause, alloc_test_revision (1, "a", time));
  }
  dealloc_clause (clause);
}

TEST (clause_get_free_revision_time, works_at_both_ends_of_time)
{
  Clause *clause = alloc_test_clause (1);
  clause_add_revision (clause, alloc_test_revision (1, "a", INT64_MIN));
  clause_add_revision (clause, alloc_test_revision (2, "a", S64_MAX - 1));
  EXPECT_EQ (clause_get_free_revision_time (clause, to_string ("a"), INT64_MIN), INT64_MIN + 1);
  EXPECT_EQ (clause_get_free_revision_time (clause, to_string ("a"), S64_MAX - 1), S64_MAX);
  EXPECT_EQ (clause_get_free_revision_time (clause, to_string ("a"), S64_MAX), S64_MAX);
  EXPECT_EQ (clause_get_free_revision_time (clause, to_string ("a"), 0), 0);
  dealloc_clause (clause);
}

TEST (procedure_get_free_clause_time, looks_at_the_clauses_of_the_initiator)
{
  Procedure *procedure = alloc_test_procedure (1);
  EXPECT_EQ (procedure_get_free_clause_time (procedure, to_string ("a"), 100), 100);
  procedure_add_clause (procedure, alloc_test_clause (1, "a", 100));
  procedure_add_clause (procedure, alloc_test_clause (2, "b", 101));
  EXPECT_EQ (procedure_get_free_clause_time (procedure, to_string ("a"), 100), 101);
  EXPECT_EQ (procedure_get_free_clause_time (procedure, to_string ("b"), 101), 102);
  EXPECT_EQ (procedure_get_free_clause_time (procedure, to_string ("c"), 100), 100);
  dealloc_procedure (procedure);
}

TEST (procedures_stack_get_free_time, looks_at_the_procedures_of_the_initiator)
{
  ProceduresStack stack = alloc_procedure_stack ();
  EXPECT_EQ (procedures_stack_get_free_time (&stack, to_string ("a"), 100), 100);
  procedures_stack_add_procedure (&stack, alloc_test_procedure (1, "a", 100));
  procedures_stack_add_procedure (&stack, alloc_test_procedure (2, "a", 101));
  procedures_stack_add_procedure (&stack, alloc_test_procedure (3, "b", 102));
  EXPECT_EQ (procedures_stack_get_free_time (&stack, to_string ("a"), 100), 102);
  EXPECT_EQ (procedures_stack_get_free_time (&stack, to_string ("b"), 100), 100);
  EXPECT_EQ (procedures_stack_get_free_time (&stack, to_string ("b"), 102), 103);
  dealloc_procedure_stack (stack);
}

// The law for all three: not earlier than asked, not taken, and everything between is taken.
TEST (free_times, are_the_first_that_the_author_does_not_have)
{
  std::mt19937 random (20240501);
  for (int round = 0; round < 300; ++round) {
    Clause *clause = alloc_test_clause (1);
    Procedure *procedure = alloc_test_procedure (1);
    ProceduresStack stack = alloc_procedure_stack ();
    std::set<s64> taken;
    int count = random () % 30;
    for (int i = 0; i < count; ++i) {
      const char *author = random () % 3 ? "a" : "b";
      s64 time = (s64) (random () % 20) - 5;
      clause_add_revision (clause, alloc_test_revision (1, author, time));
      procedure_add_clause (procedure, alloc_test_clause (1, author, time));
      procedures_stack_add_procedure (&stack, alloc_test_procedure (1, author, time));
      if (author[0] == 'a') {
        taken.insert (time);
      }
    }
    s64 asked = (s64) (random () % 20) - 5;
    s64 expected = asked;
    while (taken.count (expected)) {
      ++expected;
    }
    EXPECT_EQ (clause_get_free_revision_time (clause, to_string ("a"), asked), expected);
    EXPECT_EQ (procedure_get_free_clause_time (procedure, to_string ("a"), asked), expected);
    EXPECT_EQ (procedures_stack_get_free_time (&stack, to_string ("a"), asked), expected);
    dealloc_clause (clause);
    dealloc_procedure (procedure);
    dealloc_procedure_stack (stack);
  }
}
