// SPDX-License-Identifier: Apache-2.0
// Nothing of its own: a source for the headers that the tests precompile.
