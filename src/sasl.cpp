// SASL PLAIN: builds the message.
#include "sasl.h"

#include <assert.h>

String
get_plain_auth (Buffer buffer, String user, String password)
{
  // RFC 4616: authzid NUL authcid NUL passwd, here with an empty authzid.
  String plain_auth = {buffer.data, user.size + password.size + 2};
  assert (plain_auth.size <= buffer.size);
  Buffer rest = buffer;
  rest = buffer_append_char (rest, '\0');
  rest = buffer_append_string (rest, user);
  rest = buffer_append_char (rest, '\0');
  buffer_append_string (rest, password);
  return plain_auth;
}
