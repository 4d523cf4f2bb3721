# The comment at the top describes the file, a comment on its own line the declaration below it, and a comment behind
# code that code.
1s|^//|/// @file\n///|
s|^( *)//( \|$)|\1///\2|
s|^( *[^ /].*[;,{}]) +// |\1  ///< |
