# The comment at the top is about the file; a comment on a line of its own, about what follows; one behind code, about
# that code.
1s|^//|/// @file\n///|
s|^( *)//( \|$)|\1///\2|
s|^( *[^ /].*[;,{}]) +// |\1  ///< |
