# SPDX-License-Identifier: Apache-2.0
# sentrel_test(LogTest unit/LogTest.cpp LABEL unit)
