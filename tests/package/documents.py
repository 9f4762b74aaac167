import unittest
class Documents(unittest.TestCase):
    pass
