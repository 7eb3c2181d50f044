// The message of SASL PLAIN.
#include <gtest/gtest.h>

#include <string>

#include "sasl.h"

static std::string
to_std_string (String string)
{
  return std::string ((const char *) string.data, string.size);
}

static String
to_view (const std::string &text)
{
  return {(u8 *) text.data (), text.size ()};
}

// What `get_plain_auth` makes of the two in a buffer of just the size.
static std::string
get_message (const std::string &user, const std::string &password)
{
  Buffer buffer = alloc (user.size () + password.size () + 2);
  String message = get_plain_auth (buffer, to_view (user), to_view (password));
  std::string result = to_std_string (message);
  dealloc (buffer);
  return result;
}

TEST (get_plain_auth, puts_a_zero_byte_before_user_and_password)
{
  EXPECT_EQ (get_message ("romeo1", "julia"), std::string ("\0romeo1\0julia", 13));
}

TEST (get_plain_auth, returns_a_view_over_the_front_of_the_buffer)
{
  u8 memory[32];
  Buffer buffer = {memory, sizeof (memory)};
  String message = get_plain_auth (buffer, to_string ("romeo1"), to_string ("julia"));
  EXPECT_EQ (message.data, memory);
  EXPECT_EQ (message.size, 13u);
}

TEST (get_plain_auth, leaves_the_rest_of_the_buffer_alone)
{
  u8 memory[16];
  for (u8 &byte : memory) {
    byte = 0x5a;
  }
  Buffer buffer = {memory, sizeof (memory)};
  get_plain_auth (buffer, to_string ("romeo1"), to_string ("julia"));
  EXPECT_EQ (memory[12], 'a');
  EXPECT_EQ (memory[13], 0x5a);
  EXPECT_EQ (memory[14], 0x5a);
  EXPECT_EQ (memory[15], 0x5a);
}

TEST (get_plain_auth, fills_a_buffer_of_just_the_size)
{
  u8 memory[13];
  Buffer buffer = {memory, sizeof (memory)};
  String message = get_plain_auth (buffer, to_string ("romeo1"), to_string ("julia"));
  EXPECT_EQ (to_std_string (message), std::string ("\0romeo1\0julia", 13));
}

TEST (get_plain_auth, one_byte_too_little_stops_the_program)
{
  u8 memory[12];
  Buffer buffer = {memory, sizeof (memory)};
  EXPECT_DEATH (get_plain_auth (buffer, to_string ("romeo1"), to_string ("julia")),
                "src/sasl\\.cpp.*plain_auth\\.size <= buffer\\.size");
}

TEST (get_plain_auth, no_buffer_stops_the_program)
{
  Buffer buffer = {};
  EXPECT_DEATH (get_plain_auth (buffer, String{}, String{}),
                "src/sasl\\.cpp.*plain_auth\\.size <= buffer\\.size");
}

TEST (get_plain_auth, without_user_and_password_is_two_zero_bytes)
{
  EXPECT_EQ (get_message ("", ""), std::string ("\0\0", 2));
}

TEST (get_plain_auth, without_a_user)
{
  EXPECT_EQ (get_message ("", "pw"), std::string ("\0\0pw", 4));
}

TEST (get_plain_auth, without_a_password)
{
  EXPECT_EQ (get_message ("me", ""), std::string ("\0me\0", 4));
}

TEST (get_plain_auth, keeps_every_byte_of_a_password)
{
  std::string password;
  for (int byte = 0; byte < 256; ++byte) {
    password += (char) byte;
  }
  EXPECT_EQ (get_message ("me", password), std::string ("\0me\0", 4) + password);
}

TEST (get_plain_auth, is_zero_user_zero_password_for_all_sizes)
{
  for (size_t user_size = 0; user_size < 40; ++user_size) {
    for (size_t password_size = 0; password_size < 40; ++password_size) {
      std::string user (user_size, 'u');
      std::string password (password_size, 'p');
      std::string expected = std::string (1, '\0') + user + std::string (1, '\0') + password;
      ASSERT_EQ (get_message (user, password), expected);
    }
  }
}
