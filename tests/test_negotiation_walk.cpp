// Random walks over the acts of a negotiation and what arrives in it, for two accounts of one store,
// beside a second model that is written from the rules: what is dropped, what the order is, what is
// owed to the other side. After each step the store is read with SQL through a connection of the
// test's own. No display.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "negotiation.h"

static const s64 DAY = 24 * 60 * 60;
static const s64 TIME_MAX = 999999999999;

// The clock of this test program.
static s64 now = 5000;

time_t
time (time_t *time_out) noexcept
{
  if (time_out)
    *time_out = now;
  return now;
}

// ---- The second model ----

struct Vote {
  int id, row;
  s64 time;
  std::string author, status;
};

struct Version {
  int id, row;
  s64 time;
  std::string author, text;
  std::vector<Vote> votes;
};

struct Line {
  int id, row;
  s64 time;
  std::string author, text;
};

struct Part {
  int id, row;
  s64 time;
  std::string initiator;
  u64 position;
  std::vector<Version> versions;
  std::vector<Line> lines;
  bool has_draft;
  s64 draft_time;
  std::string draft;
};

struct Deal {
  int id, row;
  s64 time;
  std::string initiator, contractor, title;
  std::vector<Part> parts;
};

// What the other side still has to get, in the order in which it came to be owed.
enum OwedState {
  OWED,
  UNDER_WAY,
  CAME_BACK,
  TAKEN,
  DELIVERED
};

struct Owed {
  std::string kind;
  int object;
  OwedState state;
  u64 position;
  u64 request;
  s64 taken_time;
  bool is_removed;
};

struct Deleted {
  bool is_deal, is_part;
  Deal deal;
  Part part;
  int parent;
  size_t index;
};

// Two spellings are one name when these are equal.
static const std::map<std::string, std::string> NAMES = {{"alice@alpha.test", "alice@alpha.test"},
                                                         {"Alice@Alpha.test", "alice@alpha.test"},
                                                         {"\uff41lice@alpha.test",
                                                          "alice@alpha.test"},
                                                         {"bob@beta.test", "bob@beta.test"},
                                                         {"BOB@beta.test", "bob@beta.test"},
                                                         {"b\uff4fb@beta.test", "bob@beta.test"},
                                                         {"alice@beta.test", "alice@beta.test"},
                                                         {"aLICE@beta.test", "alice@beta.test"},
                                                         {"bob@evil.test", "bob@evil.test"},
                                                         {"alpha.test", "alpha.test"},
                                                         {"mallory@x.test", "mallory@x.test"},
                                                         {"mallory", "mallory"},
                                                         {"alice", "alice"},
                                                         {"aLice", "alice"},
                                                         {"bob", "bob"},
                                                         {"Bob", "bob"}};

static std::string
user_of (const std::string &name)
{
  return name.substr (0, name.find ('@'));
}

static bool
is_one_name (const std::string &name, const std::string &other)
{
  return NAMES.at (name) == NAMES.at (other);
}

// What both parties have goes by time and then by author; a chat is as it came.
static bool
is_ahead (const Version &a, const Version &b)
{
  return std::tie (a.time, a.author) < std::tie (b.time, b.author);
}

static bool
is_ahead (const Part &a, const Part &b)
{
  return std::tie (a.time, a.initiator) < std::tie (b.time, b.initiator);
}

template <typename Object>
static void
order (std::vector<Object> *objects)
{
  std::stable_sort (objects->begin (), objects->end (),
                    [] (const Object &a, const Object &b) { return is_ahead (a, b); });
}

// An order of both sides that a restart must not change.
template <typename Object>
static void
check_order (std::vector<Object> objects)
{
  std::vector<Object> before = objects;
  order (&objects);
  for (size_t i = 0; i < before.size (); i++)
    EXPECT_EQ (before[i].id, objects[i].id);
}

template <typename Object>
static void
sort_as_loaded (std::vector<Object> *objects)
{
  std::stable_sort (objects->begin (), objects->end (), [] (const Object &a, const Object &b) {
    return a.time != b.time ? a.time < b.time : a.row < b.row;
  });
}

template <typename Object>
static bool
has_second (const std::vector<Object> &objects, std::string Object::*name,
            const std::string &author, s64 time)
{
  for (const Object &object : objects) {
    if (object.time == time && object.*name == author)
      return true;
  }
  return false;
}

// The test's own numbers of all that belongs to it.
static void
collect_ids (const Part &part, std::set<int> *ids)
{
  ids->insert (part.id);
  for (const Line &line : part.lines)
    ids->insert (line.id);
  for (const Version &version : part.versions) {
    ids->insert (version.id);
    for (const Vote &vote : version.votes)
      ids->insert (vote.id);
  }
}

// ---- The two sides by side ----

static std::string
to_text (String text)
{
  return std::string ((const char *) text.data, text.size);
}

static String
view (const std::string &text)
{
  return {(u8 *) text.data (), text.size ()};
}

static std::string
join (std::initializer_list<std::string> words)
{
  std::string line;
  for (const std::string &word : words)
    line += (line.empty () ? "" : "|") + word;
  return line + "\n";
}

static std::string
num (s64 number)
{
  return std::to_string (number);
}

static int
collect_row (void *argument, int columns_count, char **values, char **)
{
  std::string row;
  for (int i = 0; i < columns_count; i++)
    row += (i ? "|" : "") + std::string (values[i] ? values[i] : "NULL");
  ((std::vector<std::string> *) argument)->push_back (row + "\n");
  return 0;
}

// One account: what the program has of it, and what it must have.
struct Side {
  std::string own, own_name, other;
  s64 skew;  // of its clock
  ContactStack contacts;
  ProceduresStack procedures;
  Outbox outbox;
  Negotiation negotiation;
  std::vector<Deal> deals;
  std::vector<Owed> owed;
  Deleted deleted;
  std::map<int, u64> db_ids;  // by the test's number
};

struct Walk {
  std::mt19937 random;
  std::filesystem::path directory;
  std::string path;
  sqlite3 *db;
  sqlite3 *reader;
  std::vector<std::string> rest;  // rows of the tables that no step writes
  Side sides[2];
  s64 clock;
  int next_id;
  u64 next_position;
  u64 next_request;

  explicit Walk (unsigned seed) : random (seed)
  {
    std::string pattern =
      (std::filesystem::temp_directory_path () / "morvane-walk-XXXXXX").string ();
    directory = mkdtemp (pattern.data ());
    path = (directory / "store.db").string ();
    db = db_connect (path.c_str ());
    // What is tried is the order of statements and not the disk.
    sqlite3_exec (db, "PRAGMA synchronous = OFF", NULL, NULL, NULL);
    EXPECT_EQ (sqlite3_open (path.c_str (), &reader), SQLITE_OK);
    clock = now = 5000;
    next_id = 1;
    next_position = next_request = 1;
    std::string second = seed % 3 ? "bob@beta.test" : "alice@beta.test";
    begin_side (&sides[0], "alice@alpha.test", second);
    begin_side (&sides[1], second, "alice@alpha.test");
    EXPECT_EQ (
      sqlite3_exec (db,
                    "INSERT INTO contacts VALUES (1, 1, 'bob@beta.test');"
                    "INSERT INTO contact_messages VALUES (1, 1, 5, 'bob@beta.test', 'Hi');",
                    NULL, NULL, NULL),
      SQLITE_OK);
    rest = read_rest ();
  }

  ~Walk ()
  {
    for (Side &side : sides)
      unload (&side);
    sqlite3_close (reader);
    db_close (db);
    std::filesystem::remove_all (directory);
  }

  void begin_side (Side *side, const std::string &own, const std::string &other)
  {
    side->own = own;
    side->own_name = user_of (own);
    side->other = other;
    side->skew = (s64) pick (5) - 2;
    side->deleted = {};
    db_insert_account (db, view (side->own));
    load (side);
  }

  void load (Side *side)
  {
    u64 db_id = db_get_account_db_id (db, view (side->own));
    db_load_account (db, db_id, &side->contacts, &side->procedures);
    side->outbox = outbox_load (db, db_id);
    side->negotiation = {};
    side->negotiation.db = db;
    side->negotiation.account_db_id = db_id;
    side->negotiation.own = view (side->own);
    side->negotiation.own_name = view (side->own_name);
    side->negotiation.procedures = &side->procedures;
    side->negotiation.outbox = &side->outbox;
  }

  void unload (Side *side)
  {
    negotiation_end_undo (&side->negotiation);
    dealloc_outbox (&side->outbox);
    dealloc_contact_stack (side->contacts);
    dealloc_procedure_stack (side->procedures);
  }

  u32 pick (u32 count)
  {
    return (u32) (random () % count);
  }

  std::vector<std::string> read (const std::string &sql)
  {
    std::vector<std::string> rows;
    EXPECT_EQ (sqlite3_exec (reader, sql.c_str (), collect_row, &rows, NULL), SQLITE_OK) << sql;
    return rows;
  }

  std::vector<std::string> read_rest ()
  {
    return read ("SELECT db_version, app_name, app_version FROM app_info UNION ALL "
                 "SELECT 'account', db_id, bare_jid FROM accounts UNION ALL "
                 "SELECT account_db_id, db_id, bare_jid FROM contacts UNION ALL "
                 "SELECT contact_db_id || author, time, body FROM contact_messages");
  }

  // ---- After each step ----

  // Everything in the store is something that the models hold, once, in the row that they know.
  void check_store ()
  {
    std::vector<std::string> held;
    for (Side &side : sides) {
      for (u32 i = 0; i < side.procedures.count; i++) {
        Procedure *deal = side.procedures.procedures[i];
        held.push_back (
          join ({"P", num ((s64) side.negotiation.account_db_id), num ((s64) deal->db_id),
                 num (deal->time), to_text (deal->initiator), to_text (deal->contractor),
                 to_text (deal->title), "NULL", "NULL", "NULL"}));
        for (u32 j = 0; j < deal->clauses_count; j++)
          list_clause (deal, deal->clauses[j], &held);
      }
    }
    std::vector<std::string> stored = read ("SELECT 'P', * FROM procedures");
    for (const char *sql :
         {"SELECT 'C', * FROM clauses", "SELECT 'M', * FROM clause_messages",
          "SELECT 'R', * FROM clause_revisions", "SELECT 'D', * FROM clause_revision_decisions"}) {
      for (const std::string &row : read (sql)) {
        size_t first = row.find ('|') + 1;
        size_t second = row.find ('|', first) + 1;
        size_t third = row.find ('|', second);
        // The parent ahead of the row.
        stored.push_back (row.substr (0, 2) + row.substr (second, third - second) + "|" +
                          row.substr (first, second - first - 1) + row.substr (third));
      }
    }
    for (std::string &row : stored) {
      if (row[0] == 'P') {
        size_t first = row.find ('|') + 1;
        size_t second = row.find ('|', first) + 1;
        size_t third = row.find ('|', second);
        row = "P|" + row.substr (second, third - second) + "|" +
              row.substr (first, second - first - 1) + row.substr (third);
      }
    }
    std::sort (held.begin (), held.end ());
    std::sort (stored.begin (), stored.end ());
    EXPECT_EQ (stored, held);
    EXPECT_EQ (read_rest (), rest);
  }

  static void list_revision (Clause *clause, ClauseRevision *revision,
                             std::vector<std::string> *held)
  {
    held->push_back (join ({"R", num ((s64) clause->db_id), num ((s64) revision->db_id),
                            num (revision->time), to_text (revision->author),
                            REVISION_STATUS_STRINGS[revision->status], to_text (revision->text)}));
    EXPECT_EQ (revision->clause_db_id, clause->db_id);
    for (u32 i = 0; i < revision->decisions_count; i++) {
      ClauseRevisionDecision *vote = revision->decisions[i];
      held->push_back (
        join ({"D", num ((s64) revision->db_id), num ((s64) vote->db_id), num (vote->time),
               to_text (vote->author), DECISION_STATUS_STRINGS[vote->status]}));
    }
  }

  static void list_clause (Procedure *deal, Clause *clause, std::vector<std::string> *held)
  {
    held->push_back (
      join ({"C", num ((s64) deal->db_id), num ((s64) clause->db_id), num (clause->time),
             to_text (clause->initiator), num ((s64) clause->position)}));
    EXPECT_EQ (clause->procedure_db_id, deal->db_id);
    for (u32 i = 0; i < clause->messages_count; i++) {
      ClauseMessage *line = clause->messages[i];
      held->push_back (join ({"M", num ((s64) clause->db_id), num ((s64) line->db_id),
                              num (line->time), to_text (line->author), to_text (line->text)}));
    }
    for (u32 i = 0; i < clause->revisions_count; i++)
      list_revision (clause, clause->revisions[i], held);
    if (clause->draft)
      list_revision (clause, clause->draft, held);
  }

  // The program's model in its order, and meanwhile the rows of the second model's objects.
  static std::string list_program (Side *side)
  {
    std::string list;
    side->db_ids.clear ();
    for (u32 i = 0; i < side->procedures.count; i++) {
      Procedure *deal = side->procedures.procedures[i];
      const Deal *twin = i < side->deals.size () ? &side->deals[i] : NULL;
      list += join ({"P", num (deal->time), to_text (deal->initiator), to_text (deal->contractor),
                     to_text (deal->title)});
      if (twin)
        side->db_ids[twin->id] = deal->db_id;
      for (u32 j = 0; j < deal->clauses_count; j++) {
        const Part *part = twin && j < twin->parts.size () ? &twin->parts[j] : NULL;
        list += list_program_clause (side, deal->clauses[j], part);
      }
    }
    return list;
  }

  static std::string list_program_clause (Side *side, Clause *clause, const Part *twin)
  {
    std::string list =
      join ({" C", num (clause->time), to_text (clause->initiator), num ((s64) clause->position)});
    if (twin)
      side->db_ids[twin->id] = clause->db_id;
    for (u32 i = 0; i < clause->revisions_count; i++) {
      ClauseRevision *revision = clause->revisions[i];
      const Version *version = twin && i < twin->versions.size () ? &twin->versions[i] : NULL;
      list +=
        join ({"  R", num (revision->time), to_text (revision->author), to_text (revision->text)});
      if (version)
        side->db_ids[version->id] = revision->db_id;
      for (u32 j = 0; j < revision->decisions_count; j++) {
        ClauseRevisionDecision *vote = revision->decisions[j];
        list += join ({"   D", num (vote->time), to_text (vote->author),
                       DECISION_STATUS_STRINGS[vote->status]});
        if (version && j < version->votes.size ())
          side->db_ids[version->votes[j].id] = vote->db_id;
      }
    }
    if (clause->draft)
      list += join ({"  F", num (clause->draft->time), to_text (clause->draft->text)});
    for (u32 i = 0; i < clause->messages_count; i++) {
      ClauseMessage *line = clause->messages[i];
      list += join ({"  M", num (line->time), to_text (line->author), to_text (line->text)});
      if (twin && i < twin->lines.size ())
        side->db_ids[twin->lines[i].id] = line->db_id;
    }
    return list;
  }

  static std::string list_twin (const Side &side)
  {
    std::string list;
    for (const Deal &deal : side.deals) {
      list += join ({"P", num (deal.time), deal.initiator, deal.contractor, deal.title});
      for (const Part &part : deal.parts) {
        list += join ({" C", num (part.time), part.initiator, num ((s64) part.position)});
        for (const Version &version : part.versions) {
          list += join ({"  R", num (version.time), version.author, version.text});
          for (const Vote &vote : version.votes)
            list += join ({"   D", num (vote.time), vote.author, vote.status});
        }
        if (part.has_draft)
          list += join ({"  F", num (part.draft_time), part.draft});
        for (const Line &line : part.lines)
          list += join ({"  M", num (line.time), line.author, line.text});
      }
    }
    return list;
  }

  // What is owed has a row each, in the order in which it is to go, and nothing else has.
  void check_outbox (Side *side)
  {
    std::vector<std::string> expected;
    for (const Owed &owed : side->owed) {
      if (!owed.is_removed && owed.state <= CAME_BACK)
        expected.push_back (join ({owed.kind, num ((s64) side->db_ids[owed.object])}));
    }
    std::vector<std::string> rows;
    if (!read ("SELECT 1 FROM sqlite_master WHERE name = 'outbox'").empty ())
      rows = read ("SELECT kind, object_db_id FROM outbox WHERE account_db_id = " +
                   num ((s64) side->negotiation.account_db_id) + " ORDER BY sequence");
    EXPECT_EQ (rows, expected);
  }

  void check ()
  {
    for (Side &side : sides) {
      EXPECT_EQ (list_program (&side), list_twin (side));
      check_outbox (&side);
    }
    check_store ();
  }

  // ---- What the user does ----

  void owe (Side *side, const std::string &kind, int object)
  {
    for (Owed &owed : side->owed) {
      if (owed.object == object && (owed.state == OWED || owed.state == CAME_BACK)) {
        owed.state = OWED;
        return;
      }
    }
    side->owed.push_back ({kind, object, OWED, 0, 0, 0, false});
  }

  int make_id ()
  {
    return next_id++;
  }

  std::string make_text ()
  {
    static const char *const WORDS[] = {"ten", "it's", "crates", "'; DROP", "EUR\n500", "\u20ac"};
    std::string text = WORDS[pick (6)];
    return text + " " + WORDS[pick (6)] + num (pick (4));
  }

  void begin (Side *side)
  {
    static const char *const SPELLINGS[] = {"BOB@beta.test", "aLICE@beta.test"};
    std::string contractor = side->other;
    for (const char *spelling : SPELLINGS) {
      if (is_one_name (spelling, contractor) && !pick (3))
        contractor = spelling;
    }
    s64 time = now;
    while (has_second (side->deals, &Deal::initiator, side->own, time) ||
           (side->deleted.is_deal && side->deleted.deal.initiator == side->own &&
            side->deleted.deal.time == time))
      time++;
    int id = make_id ();
    side->deals.push_back ({id, id, time, side->own, contractor, "Planks", {}});
    owe (side, "procedure", id);
    negotiation_begin (&side->negotiation, to_string ("Planks"), view (contractor));
  }

  static bool is_one_deal (const Deal &deal, const Deal &other)
  {
    return deal.time == other.time && deal.initiator == other.initiator;
  }

  void add_clause (Side *side, size_t index)
  {
    Deal *deal = &side->deals[index];
    const Deleted &deleted = side->deleted;
    s64 time = now;
    bool is_taken = true;
    while (is_taken) {
      is_taken = deleted.is_part && deleted.part.initiator == side->own &&
                 deleted.part.time == time && deleted.parent == deal->id;
      is_taken |= deleted.is_deal && is_one_deal (deleted.deal, *deal) &&
                  has_second (deleted.deal.parts, &Part::initiator, side->own, time);
      for (const Deal &row : side->deals) {
        is_taken |=
          is_one_deal (row, *deal) && has_second (row.parts, &Part::initiator, side->own, time);
        // The clause that can come back stood in another row of the procedure.
        is_taken |= is_one_deal (row, *deal) && deleted.is_part && deleted.parent == row.id &&
                    deleted.part.initiator == side->own && deleted.part.time == time;
      }
      time += is_taken;
    }
    int id = make_id ();
    deal->parts.push_back (
      {id, id, time, side->own, deal->parts.size () + 1, {}, {}, false, 0, ""});
    order (&deal->parts);
    negotiation_add_clause (&side->negotiation, side->procedures.procedures[index]);
  }

  void delete_deal (Side *side, size_t index)
  {
    end_undo (side);
    Deleted *deleted = &side->deleted;
    deleted->is_deal = true;
    deleted->deal = side->deals[index];
    deleted->index = index;
    side->deals.erase (side->deals.begin () + (long) index);
    std::set<int> ids = {deleted->deal.id};
    for (const Part &part : deleted->deal.parts)
      collect_ids (part, &ids);
    set_removed (side, ids, true);
    negotiation_delete (&side->negotiation, side->procedures.procedures[index]);
  }

  void delete_part (Side *side, size_t index, size_t part)
  {
    end_undo (side);
    Deleted *deleted = &side->deleted;
    std::vector<Part> *parts = &side->deals[index].parts;
    deleted->is_part = true;
    deleted->part = (*parts)[part];
    deleted->parent = side->deals[index].id;
    deleted->index = part;
    parts->erase (parts->begin () + (long) part);
    std::set<int> ids;
    collect_ids (deleted->part, &ids);
    set_removed (side, ids, true);
    Procedure *deal = side->procedures.procedures[index];
    negotiation_delete_clause (&side->negotiation, deal, deal->clauses[part]);
  }

  static void set_removed (Side *side, const std::set<int> &ids, bool is_removed)
  {
    for (Owed &owed : side->owed) {
      if (ids.count (owed.object))
        owed.is_removed = is_removed;
    }
  }

  static void end_undo (Side *side)
  {
    side->deleted = {};
    std::erase_if (side->owed, [] (const Owed &owed) { return owed.is_removed; });
  }

  // All rows are new ones, in the order that the objects had.
  void renumber (Part *part)
  {
    part->row = make_id ();
    for (Line &line : part->lines)
      line.row = make_id ();
    for (Version &version : part->versions) {
      version.row = make_id ();
      for (Vote &vote : version.votes)
        vote.row = make_id ();
    }
  }

  void undo (Side *side)
  {
    Deleted deleted = side->deleted;
    std::set<int> ids;
    if (deleted.is_deal) {
      deleted.deal.row = make_id ();
      ids.insert (deleted.deal.id);
      for (Part &part : deleted.deal.parts) {
        collect_ids (part, &ids);
        renumber (&part);
      }
      side->deals.insert (side->deals.begin () + (long) deleted.index, deleted.deal);
    } else {
      collect_ids (deleted.part, &ids);
      renumber (&deleted.part);
      for (Deal &deal : side->deals) {
        if (deal.id != deleted.parent)
          continue;
        deal.parts.push_back (deleted.part);
        order (&deal.parts);
      }
    }
    set_removed (side, ids, false);
    side->deleted = {};
    negotiation_undo_delete (&side->negotiation);
  }

  void commit (Side *side, Part *part, Clause *clause)
  {
    s64 time = now;
    std::vector<Version> *versions = &part->versions;
    if (!versions->empty () && versions->back ().time >= now && versions->back ().time < TIME_MAX)
      time = versions->back ().time + 1;
    while (has_second (*versions, &Version::author, side->own, time))
      time++;
    bool is_first = true;
    for (const Version &version : *versions)
      is_first &= version.author != side->own;
    std::string text = make_text ();
    int id = make_id ();
    versions->push_back ({id, id, time, side->own, text, {}});
    order (versions);
    part->has_draft = false;
    if (is_first && part->initiator == side->own)
      owe (side, "clause", part->id);
    owe (side, "revision", id);
    negotiation_commit (&side->negotiation, clause, view (text));
  }

  void decide (Side *side, Version *version, ClauseRevision *revision)
  {
    DecisionStatus status = pick (2) ? DECISION_AGREE : DECISION_DISAGREE;
    int id = set_vote (version, side->own, DECISION_STATUS_STRINGS[status]);
    owe (side, "decision", id);
    negotiation_decide (&side->negotiation, revision, view (side->own), status);
  }

  int set_vote (Version *version, const std::string &author, const char *status)
  {
    for (Vote &vote : version->votes) {
      if (vote.author == author) {
        vote.time = now;
        vote.status = status;
        return vote.id;
      }
    }
    int id = make_id ();
    version->votes.push_back ({id, id, now, author, status});
    return id;
  }

  void say (Side *side, Part *part, Clause *clause)
  {
    s64 time = now;
    while (has_second (part->lines, &Line::author, side->own_name, time))
      time++;
    std::string text = make_text ();
    int id = make_id ();
    part->lines.push_back ({id, id, time, side->own_name, text});
    owe (side, "message", id);
    negotiation_say (&side->negotiation, clause, view (text));
  }

  void save_draft (Side *side, Part *part, Clause *clause)
  {
    part->has_draft = true;
    part->draft_time = now;
    part->draft = make_text ();
    negotiation_save_draft (&side->negotiation, clause, view (part->draft));
  }

  void discard_draft (Side *side, Part *part, Clause *clause)
  {
    part->has_draft = false;
    negotiation_discard_draft (&side->negotiation, clause);
  }

  // One act at some clause.
  void act (Side *side)
  {
    if (side->deals.empty () || !pick (12))
      return begin (side);
    size_t index = pick ((u32) side->deals.size ());
    Deal *deal = &side->deals[index];
    if (!pick (12))
      return delete_deal (side, index);
    if (deal->parts.empty () || !pick (5))
      return add_clause (side, index);
    size_t place = pick ((u32) deal->parts.size ());
    Part *part = &deal->parts[place];
    Clause *clause = side->procedures.procedures[index]->clauses[place];
    switch (pick (6)) {
    case 0:
      return save_draft (side, part, clause);
    case 1:
      return discard_draft (side, part, clause);
    case 2:
      if (!part->versions.empty ())
        return say (side, part, clause);
      return delete_part (side, index, place);
    case 3:
      if (!part->versions.empty ()) {
        u32 version = pick ((u32) part->versions.size ());
        return decide (side, &part->versions[version], clause->revisions[version]);
      }
      [[fallthrough]];
    default:
      return commit (side, part, clause);
    }
  }

  // ---- What arrives ----

  std::string pick_name (Side *side)
  {
    if (pick (3))
      return side->other;
    auto name = NAMES.begin ();
    std::advance (name, pick ((u32) NAMES.size ()));
    return name->first;
  }

  s64 pick_time ()
  {
    static const s64 FAR[] = {0, TIME_MAX, TIME_MAX - 1, 5000};
    u32 kind = pick (20);
    if (kind == 0)
      return FAR[pick (4)];
    if (kind == 1)
      return now + DAY + (s64) pick (3) - 1;
    return now + (s64) pick (9) - 5;
  }

  Deal *find_deal (Side *side, const std::string &initiator, s64 time)
  {
    for (Deal &deal : side->deals) {
      if (deal.time == time && deal.initiator == initiator)
        return &deal;
    }
    return NULL;
  }

  Part *find_part (Side *side, Deal *deal, const std::string &initiator, s64 time)
  {
    if (!deal)
      return NULL;
    for (Deal &row : side->deals) {
      for (Part &part : row.parts) {
        if (is_one_deal (row, *deal) && part.time == time && part.initiator == initiator)
          return &part;
      }
    }
    return NULL;
  }

  static bool is_party (const Deal &deal, const std::string &name)
  {
    return is_one_name (name, deal.initiator) || is_one_name (name, deal.contractor);
  }

  bool may_make (Side *side, Deal *deal, const std::string &author)
  {
    return !is_one_name (author, side->own) && is_party (*deal, author);
  }

  static bool may_say (const Deal &deal, const std::string &author)
  {
    const std::string &name = NAMES.at (author);
    return is_party (deal, author) || name == user_of (NAMES.at (deal.initiator)) ||
           name == user_of (NAMES.at (deal.contractor));
  }

  void receive_procedure (Side *side)
  {
    static const std::string LONG (5000, 'x');
    std::string initiator = pick_name (side);
    s64 time = pick_time ();
    if (!side->deals.empty () && !pick (3)) {
      const Deal &deal = side->deals[pick ((u32) side->deals.size ())];
      initiator = deal.initiator;
      time = deal.time;
    }
    std::string title = pick (9) ? "Al's planks" : LONG;
    bool is_taken = !is_one_name (initiator, side->own) && title != LONG;
    XMPPProcedure record = {};
    record.initiator = view (initiator);
    record.time = time;
    record.title = view (title);
    int id = make_id ();
    if (is_taken)
      side->deals.push_back ({id, id, time, initiator, side->own, "Al\u2019s planks", {}});
    Procedure *procedure = negotiation_receive_procedure (&side->negotiation, &record);
    check_result (procedure != NULL, is_taken, time);
  }

  // A result where one is expected, and one line where it is not, or where the time is far ahead.
  static void check_result (bool has_result, bool is_taken, s64 time)
  {
    EXPECT_EQ (has_result, is_taken);
    std::string console = testing::internal::GetCapturedStdout ();
    size_t count = 0;
    for (size_t at = 0; (at = console.find ("Warning: ", at)) != std::string::npos; at++)
      count++;
    EXPECT_EQ (count, size_t (!is_taken || time - now > DAY)) << console;
    testing::internal::CaptureStdout ();
  }

  // Where something belongs: mostly a place that is there, here or at the other account.
  void pick_place (Side *side, Deal *deal_out, Part *part_out)
  {
    Side *source = pick (8) ? side : side == &sides[0] ? &sides[1] : &sides[0];
    *deal_out = {0, 0, pick_time (), pick_name (side), "", "", {}};
    *part_out = {0, 0, pick_time (), pick_name (side), 0, {}, {}, false, 0, ""};
    if (source->deals.empty () || !pick (20))
      return;
    *deal_out = source->deals[pick ((u32) source->deals.size ())];
    if (!deal_out->parts.empty () && pick (20))
      *part_out = deal_out->parts[pick ((u32) deal_out->parts.size ())];
  }

  void receive_clause (Side *side)
  {
    Deal place;
    Part repeated;
    pick_place (side, &place, &repeated);
    std::string initiator = pick (3) ? pick_name (side) : repeated.initiator;
    s64 time = pick (3) ? pick_time () : repeated.time;
    Deal *deal = find_deal (side, place.initiator, place.time);
    bool is_taken =
      deal && may_make (side, deal, initiator) && !find_part (side, deal, initiator, time);
    XMPPClause record = {};
    record.procedure_initiator = view (place.initiator);
    record.procedure_time = place.time;
    record.clause_initiator = view (initiator);
    record.clause_time = time;
    int id = make_id ();
    if (is_taken) {
      deal->parts.push_back ({id, id, time, initiator, 1, {}, {}, false, 0, ""});
      order (&deal->parts);
    }
    Procedure *target = NULL;
    Clause *clause = negotiation_receive_clause (&side->negotiation, &record, &target);
    EXPECT_EQ (clause != NULL, target != NULL);
    check_result (clause != NULL, is_taken, time);
  }

  void receive_revision (Side *side)
  {
    Deal place;
    Part clause;
    pick_place (side, &place, &clause);
    std::string author = pick_name (side);
    std::string text = make_text ();
    s64 time = pick_time ();
    if (!clause.versions.empty () && !pick (3)) {
      const Version &version = clause.versions[pick ((u32) clause.versions.size ())];
      // Another's second, or the same object with the same text or another one.
      time = version.time;
      author = pick (2) ? version.author : author;
      text = pick (2) ? version.text : text;
    }
    Deal *deal = find_deal (side, place.initiator, place.time);
    Part *part = find_part (side, deal, clause.initiator, clause.time);
    bool is_taken = part && may_make (side, deal, author) &&
                    !has_second (part->versions, &Version::author, author, time);
    XMPPClauseRevision record = {};
    record.procedure_initiator = view (place.initiator);
    record.procedure_time = place.time;
    record.clause_initiator = view (clause.initiator);
    record.clause_time = clause.time;
    record.revision_author = view (author);
    record.revision_time = time;
    record.text = view (text);
    int id = make_id ();
    if (is_taken) {
      part->versions.push_back ({id, id, time, author, text, {}});
      order (&part->versions);
    }
    Clause *target = NULL;
    ClauseRevision *revision = negotiation_receive_revision (&side->negotiation, &record, &target);
    EXPECT_EQ (revision != NULL, target != NULL);
    check_result (revision != NULL, is_taken, time);
  }

  void receive_message (Side *side)
  {
    Deal place;
    Part clause;
    pick_place (side, &place, &clause);
    std::string author = pick (2) ? user_of (side->other) : pick_name (side);
    std::string text = make_text ();
    s64 time = pick_time ();
    if (!clause.lines.empty () && !pick (3)) {
      const Line &line = clause.lines[pick ((u32) clause.lines.size ())];
      time = line.time;
      author = pick (3) ? line.author : author;
      text = pick (3) ? line.text : text;
    }
    Deal *deal = find_deal (side, place.initiator, place.time);
    Part *part = find_part (side, deal, clause.initiator, clause.time);
    bool is_taken = part && may_say (*deal, author);
    for (size_t i = 0; is_taken && i < part->lines.size (); i++) {
      const Line &line = part->lines[i];
      is_taken = line.time != time || line.author != author || line.text != text;
    }
    XMPPClauseMessage record = {};
    record.procedure_initiator = view (place.initiator);
    record.procedure_time = place.time;
    record.clause_initiator = view (clause.initiator);
    record.clause_time = clause.time;
    record.message_author = view (author);
    record.message_time = time;
    record.text = view (text);
    int id = make_id ();
    if (is_taken)
      part->lines.push_back ({id, id, time, author, text});
    Clause *target = NULL;
    ClauseMessage *message = negotiation_receive_message (&side->negotiation, &record, &target);
    EXPECT_EQ (message != NULL, target != NULL);
    check_result (message != NULL, is_taken, time);
  }

  void receive_decision (Side *side)
  {
    Deal place;
    Part clause;
    pick_place (side, &place, &clause);
    std::string author = pick_name (side);
    Version version = {0, 0, pick_time (), pick_name (side), "", {}};
    if (!clause.versions.empty () && pick (9))
      version = clause.versions[pick ((u32) clause.versions.size ())];
    DecisionStatus status = pick (2) ? DECISION_AGREE : DECISION_DISAGREE;
    Deal *deal = find_deal (side, place.initiator, place.time);
    Part *part = find_part (side, deal, clause.initiator, clause.time);
    bool is_taken = false;
    if (part && may_make (side, deal, author)) {
      for (Version &one : part->versions) {
        if (!is_taken && one.time == version.time && one.author == version.author) {
          set_vote (&one, author, DECISION_STATUS_STRINGS[status]);
          is_taken = true;
        }
      }
    }
    XMPPClauseRevisionDecisionSignal record = {};
    record.procedure_initiator = view (place.initiator);
    record.procedure_time = place.time;
    record.clause_initiator = view (clause.initiator);
    record.clause_time = clause.time;
    record.revision_author = view (version.author);
    record.revision_time = version.time;
    record.decision_author = view (author);
    record.decision_time = pick_time ();
    record.status = status;
    Clause *target = NULL;
    ClauseRevision *revision = NULL;
    ClauseRevisionDecision *decision =
      negotiation_receive_decision (&side->negotiation, &record, &target, &revision);
    EXPECT_EQ (decision != NULL, target != NULL);
    EXPECT_EQ (decision != NULL, revision != NULL);
    // Stamped with the local clock, so a sender's time far ahead costs nothing.
    check_result (decision != NULL, is_taken, now);
  }

  void receive (Side *side)
  {
    switch (pick (10)) {
    case 0:
      return receive_procedure (side);
    case 1:
    case 2:
      return receive_clause (side);
    case 3:
    case 4:
      return receive_message (side);
    case 5:
    case 6:
      return receive_decision (side);
    default:
      return receive_revision (side);
    }
  }

  // ---- The session ----

  void send (Side *side)
  {
    OutboxEntry *entry = outbox_get_next (&side->outbox);
    Owed *next = NULL;
    for (Owed &owed : side->owed) {
      if (!next && owed.state == OWED && !owed.is_removed)
        next = &owed;
    }
    ASSERT_EQ (entry != NULL, next != NULL);
    if (!next)
      return;
    list_program (side);
    EXPECT_EQ (OUTBOX_KIND_STRINGS[entry->kind], next->kind);
    EXPECT_EQ (entry->object_db_id, side->db_ids[next->object]);
    next->state = UNDER_WAY;
    next->position = next_position++;
    next->request = next_request++;
    outbox_note_sent (&side->outbox, entry, next->position, next->position, next->request);
  }

  void confirm (Side *side)
  {
    u64 position = next_position - pick (4);
    u64 request = next_request - pick (8);
    bool is_found = false;
    u32 kind = pick (6);
    for (Owed &owed : side->owed) {
      bool is_out = owed.state == UNDER_WAY && owed.position <= position;
      if (kind < 2 && is_out)
        owed.state = DELIVERED;
      if (kind == 2 && is_out) {
        owed.state = TAKEN;
        owed.taken_time = now;
      }
      if (kind == 3 && owed.state == TAKEN && owed.taken_time <= now)
        owed.state = DELIVERED;
      if (kind == 4 && !is_found && owed.state != OWED && owed.state != CAME_BACK &&
          owed.request == request) {
        owed.state = CAME_BACK;
        is_found = true;
      }
    }
    if (kind < 2)
      outbox_note_acknowledged (&side->outbox, position);
    if (kind == 2)
      outbox_note_taken (&side->outbox, position, now);
    if (kind == 3)
      outbox_note_heard (&side->outbox, now);
    if (kind == 4) {
      EXPECT_EQ (outbox_note_refused (&side->outbox, request), is_found);
    }
    if (kind == 5)
      end_session (side);
  }

  void end_session (Side *side)
  {
    std::erase_if (side->owed, [] (const Owed &owed) { return owed.state == DELIVERED; });
    for (Owed &owed : side->owed)
      owed.state = OWED;
    outbox_end_session (&side->outbox, 0);
  }

  // What the next login finds.
  void restart (Side *side)
  {
    end_session (side);
    end_undo (side);
    sort_as_loaded (&side->deals);
    for (Deal &deal : side->deals) {
      check_order (deal.parts);
      for (Part &part : deal.parts) {
        sort_as_loaded (&part.lines);
        check_order (part.versions);
      }
    }
    unload (side);
    load (side);
  }

  void step ()
  {
    // Mostly on, at times not at all, at times back.
    u32 jump = pick (40);
    clock += jump == 0 ? -50 : jump == 1 ? 50 : jump < 20 ? 0 : 1;
    Side *side = &sides[pick (2)];
    now = clock + side->skew;
    u32 kind = pick (40);
    if ((side->deleted.is_deal || side->deleted.is_part) && kind % 4 == 0)
      undo (side);
    else if (kind == 1)
      restart (side);
    else if (kind == 2) {
      end_undo (side);
      negotiation_end_undo (&side->negotiation);
    } else if (kind < 8)
      send (side);
    else if (kind < 11)
      confirm (side);
    else if (kind == 11)
      outbox_drop_empty_table (db);
    else if (kind < 24)
      receive (side);
    else
      act (side);
  }
};

static void
walk (unsigned seed)
{
  Walk walk (seed);
  testing::internal::CaptureStdout ();
  for (int i = 0; i < 400 && !testing::Test::HasFailure (); i++) {
    walk.step ();
    walk.check ();
    if (testing::Test::HasFailure ())
      ADD_FAILURE () << "seed " << seed << ", step " << i;
  }
  std::string console = testing::internal::GetCapturedStdout ();
  // Google Test says there, too, what is wrong.
  if (testing::Test::HasFailure ())
    puts (console.substr (console.size () - std::min<size_t> (console.size (), 10000)).c_str ());
}

// Where the sanitizers make it slow there are fewer walks: the rules are judged without them.
TEST (negotiation_walk, keeps_model_store_and_outbox_as_the_rules_say)
{
  const char *slowness = getenv ("MORVANE_SLOW");
  unsigned walks_count = 12 / (slowness ? (unsigned) atoi (slowness) : 1);
  ASSERT_GE (walks_count, 2u);
  for (unsigned seed = 1; seed <= walks_count && !testing::Test::HasFailure (); seed++)
    walk (seed);
}
